#include <ZuCore/Rational.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/ThrowException.h>

namespace Varkel {
namespace Zu {

namespace {
// Products of two 64-bit values need 128 bits to compare exactly.
__extension__ typedef __int128 WideInt;
}  // namespace

Rational::Rational(std::int64_t numerator, std::int64_t denominator)
    : numerator_(numerator), denominator_(denominator) {
    if (denominator == 0) {
        ZU_THROW(InvalidArgumentException, L"Rational with denominator 0");
    }
}

double Rational::toDouble() const noexcept {
    return static_cast<double>(numerator_) / static_cast<double>(denominator_);
}

std::string Rational::toString() const {
    return std::to_string(numerator_) + "/" + std::to_string(denominator_);
}

std::wstring Rational::toWString() const {
    return std::to_wstring(numerator_) + L"/" + std::to_wstring(denominator_);
}

bool Rational::operator==(const Rational& other) const noexcept {
    return WideInt(numerator_) * other.denominator_ == WideInt(other.numerator_) * denominator_;
}

bool Rational::operator<(const Rational& other) const noexcept {
    // a/b < c/d  <=>  a*d < c*b when b*d > 0; the comparison flips when b*d < 0.
    const WideInt left = WideInt(numerator_) * other.denominator_;
    const WideInt right = WideInt(other.numerator_) * denominator_;
    const bool positiveDenominators = (denominator_ > 0) == (other.denominator_ > 0);
    return positiveDenominators ? left < right : right < left;
}

}  // namespace Zu
}  // namespace Varkel
