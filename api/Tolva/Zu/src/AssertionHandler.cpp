// The handler that Boost's assertion macros call (BOOST_ENABLE_ASSERT_HANDLER is defined for
// everything that uses ZuCore, so assertions are checked in every build type). A failed
// assertion is logged like any other throw and becomes a LogicErrorException.
#include <boost/assert.hpp>

#include <string>

#include <ZuCore/LoggerLocationInfo.h>
#include <ZuCore/LogicErrorException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

namespace {

[[noreturn]] void failAssertion(const std::string& text, char const* function, char const* file,
                                long line) {
    const Varkel::Zu::LoggerLocationInfo where(file, function, static_cast<int>(line));
    Varkel::Zu::throwException<Varkel::Zu::LogicErrorException>(Varkel::Zu::widen(text), where);
}

}  // namespace

namespace boost {

// Boost declares these without visibility attributes; the pragma gives the definitions
// default visibility so that every user of ZuCore links to them.
#pragma GCC visibility push(default)

void assertion_failed(char const* expr, char const* function, char const* file, long line) {
    failAssertion(std::string("Assertion failed: ") + (expr != nullptr ? expr : "?"), function,
                  file, line);
}

void assertion_failed_msg(char const* expr, char const* msg, char const* function, char const* file,
                          long line) {
    failAssertion(std::string("Assertion failed: ") + (expr != nullptr ? expr : "?") + " (" +
                      (msg != nullptr ? msg : "") + ")",
                  function, file, line);
}

#pragma GCC visibility pop

}  // namespace boost
