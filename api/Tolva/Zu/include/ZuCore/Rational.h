/// @class Varkel::Zu::Rational
/// Rational: a fraction of two signed 64-bit integers.
#pragma once

#include <cstdint>
#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A numerator and a denominator, kept exactly as given (not reduced: Rational(2, 2) keeps
/// 2 and 2). Value type; any thread may read it.
class ZU_EXPORT Rational {
  public:
    /// 0/1.
    Rational() noexcept = default;
    /// numerator/denominator. Throws InvalidArgumentException (through ZU_THROW) when the
    /// denominator is 0.
    Rational(std::int64_t numerator, std::int64_t denominator);

    /// The numerator, as given.
    std::int64_t getNumerator() const noexcept { return numerator_; }
    /// The denominator, as given.
    std::int64_t getDenominator() const noexcept { return denominator_; }

    /// The value as a double.
    double toDouble() const noexcept;
    /// "numerator/denominator", e.g. "3/4".
    std::string toString() const;
    /// The same as toString, as wide text.
    std::wstring toWString() const;

    ///@{
    /// Compare values exactly: Rational(1, 2) == Rational(2, 4).
    bool operator==(const Rational& other) const noexcept;
    bool operator!=(const Rational& other) const noexcept { return !(*this == other); }
    bool operator<(const Rational& other) const noexcept;
    ///@}

  private:
    std::int64_t numerator_ = 0;
    std::int64_t denominator_ = 1;
};

}  // namespace Zu
}  // namespace Varkel
