/// @class Varkel::Tolva::Rest::Model::ModelBase
/// ModelBase: the abstract base of every record the library exchanges with the platform as
/// JSON. A derived model says only how its fields map to JSON keys, through toJsonImp and
/// fromJsonImp; serialising, parsing with error translation, cloning and comparing are built
/// on those two here. Models are made through Varkel::Zu::MakeShared and held by shared
/// pointers.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <ZuCore/Rational.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <cpprest/json.h>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

class ModelBase;

/// Implemented by a model that can copy itself without a JSON round trip; ModelBase::clone
/// uses it when it is there.
struct TOLVA_EXPORT EnableCloneFast {
    /// A copy of the object, of the same dynamic type.
    virtual std::shared_ptr<ModelBase> cloneFast() const = 0;

  protected:
    /// Not virtual: an object is never owned or deleted through this interface.
    ~EnableCloneFast() = default;
};

class TOLVA_EXPORT ModelBase {
  public:
    ModelBase();
    virtual ~ModelBase();
    /// Copying a model copies nothing of the base; derived types copy their own fields.
    ModelBase(const ModelBase& other);
    /// Assigns nothing of the base; derived types assign their own fields.
    ModelBase& operator=(const ModelBase& other);

    /// The model as a JSON object (a null value for a model with no fields). Throws what the
    /// model's toJsonImp throws, unchanged (ModelServiceInfo: IllegalStateException for an
    /// incomplete record). Thread safety is the model's: see the derived class.
    web::json::value toJson() const;

    /// Reads the model's fields from `in`. A web::json::json_exception (a missing required
    /// key, "Key not found", or a value of the wrong kind) is thrown as
    /// Varkel::Zu::InvalidArgumentException with the message "Exception: " + its text + a
    /// line break + "While parsing json: " + the input's JSON text; every other exception
    /// passes unchanged. Fields read before a failure keep their new values.
    void fromJson(const web::json::value& in);

    /// A new object of the same dynamic type holding the same fields. With forceJsonCopy false
    /// a model that implements EnableCloneFast copies itself directly; otherwise the copy goes
    /// through toJson and fromJson, so state a model does not serialise is not carried over.
    /// Throws what toJson or fromJson throw.
    std::shared_ptr<ModelBase> clone(bool forceJsonCopy) const;

    ///@{
    /// Equal when both models' JSON values are equal (member order does not matter; the
    /// dynamic types need not match). Throws what toJson throws.
    bool operator==(const ModelBase& other) const;
    bool operator!=(const ModelBase& other) const;
    ///@}

    /// Whether `text` is a UUID in the 36-character 8-4-4-4-12 form. Any exception other than
    /// the parser's InvalidArgumentException passes through.
    static bool isUUID(const std::wstring& text);

    /// {"num": numerator, "den": denominator}, both as signed 64-bit JSON integers.
    static web::json::value rationalToJson(const Varkel::Zu::Rational& r);

    /// The Rational of {"num": n, "den": d}; "den" is optional and defaults to 1. A number
    /// stored as floating point is truncated toward zero. Throws web::json::json_exception for
    /// a missing "num", a value that is not an object or a member that is not a number (also
    /// for a floating-point number outside the signed 64-bit range), and what the Rational
    /// constructor throws (a denominator of 0).
    static Varkel::Zu::Rational rationalFromJson(const web::json::value& v);

  protected:
    /// A new default object of the caller's dynamic type.
    virtual std::shared_ptr<ModelBase> createNewOfSameType() const = 0;
    /// Writes the fields as members of `out`, which arrives as a null value.
    virtual void toJsonImp(web::json::value& out) const = 0;
    /// Reads the fields from the JSON object `in`; may throw web::json::json_exception.
    virtual void fromJsonImp(const web::json::value& in) = 0;
};

}  // namespace Model
}  // namespace Rest

/// Writes the models as one compact JSON array, in vector order ("[]" for none), with no
/// trailing line break. Throws what a model's toJsonImp throws; null pointers are not allowed.
TOLVA_EXPORT std::wostream& operator<<(
    std::wostream& os, const std::vector<std::shared_ptr<const Rest::Model::ModelBase>>& models);

}  // namespace Tolva
}  // namespace Varkel
