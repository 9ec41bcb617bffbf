// The engine's host values: Variant (IVariant) and Vector (IVectorGeneric).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Ombrix/Interfaces.h"

namespace Ombrix::Host {

class Variant final : public UseCounted<IVariant> {
public:
    // An unset value of the given type code (0: no type yet).
    explicit Variant(uint32_t type = 0) : type_(type) {}

    static AutoRefPtr<Variant> Boolean(bool value);
    static AutoRefPtr<Variant> Number(double value);
    static AutoRefPtr<Variant> String(std::string value);
    // A STRING over bytes the caller keeps alive and unchanged, NUL-terminated,
    // for as long as the value is in use (a script's string during a call):
    // no copy is made.
    static AutoRefPtr<Variant> LentString(const char* text, size_t size);
    // A DATAREF over bytes lent the same way. Its buffer never writes to
    // them: an Assign gives it bytes of its own.
    static AutoRefPtr<Variant> LentData(const char* bytes, size_t size);
    static AutoRefPtr<Variant> DataRef(AutoRefPtr<IDataRef> value);
    // The value, with bytes of its own, for a call that may outlive what its
    // caller lent: a lent value of this class is made owned in place
    // (MakeOwned), so every holder of it or of its buffer keeps valid bytes.
    static AutoRefPtr<IVariant> Owning(IVariant* value);
    // A custom value; its type code is the object's own.
    static AutoRefPtr<Variant> Object(AutoRefPtr<IUserDefinedType> value);
    // A variable of a custom type that holds no object.
    static AutoRefPtr<Variant> Unset(uint32_t type) { return AutoRefPtr<Variant>(new Variant(type)); }

    uint32_t GetType() const override { return type_; }
    std::string GetTypeAsString(IContext* context) const override;
    bool GetBoolean() const override { return boolean_; }
    double GetNumber() const override { return number_; }
    const char* GetString() const override { return lent_.data() ? lent_.data() : string_.c_str(); }
    uint64_t GetStringSize() const override { return Text().size(); }
    AutoRefPtr<IDataRef> GetData() const override { return data_; }
    AutoRefPtr<IStream> GetStream() const override { return stream_; }
    IUserDefinedType* GetUserDefinedPtr() const override;
    uint64_t GetVectorSize() const override;
    AutoRefPtr<IVectorGeneric> GetVector() const override { return vector_; }
    uint64_t GetMapSize() const override { return map_ ? map_->GetSize() : 0; }
    AutoRefPtr<IMapGeneric> GetMap() const override { return map_; }
    bool IsEqual(const IVariant* other) const override;
    bool Assign(const IVariant* other) override;
    bool AssignBoolean(bool value) override;
    bool AssignNumber(double value) override;
    bool AssignString(const char* value, uint64_t size) override;
    bool AssignData(AutoRefPtr<IDataRef> value) override;
    bool AssignStream(AutoRefPtr<IStream> value) override;
    bool SetUserDefined(AutoRefPtr<IUserDefinedType> value) override;
    bool AssignVector(AutoRefPtr<IVectorGeneric> value) override;
    bool AssignMap(AutoRefPtr<IMapGeneric> value) override;
    AutoRefPtr<IVariant> Clone() const override;
    bool Deserialize(const IJSON* json, IContext* context) override;
    AutoRefPtr<IJSON> Serialize(IContext* context) const override;

    // Whether a value was ever assigned (a fresh result stays unassigned when
    // the routine leaves it alone).
    bool IsAssigned() const noexcept { return assigned_; }
    // Whether the value reads bytes a caller lent (LentString, LentData).
    bool IsLent() const noexcept { return lent_.data() || lentData_; }
    // Copies lent bytes in, so the value no longer reads the lender's: a
    // lent STRING takes a copy, a lent buffer copies into itself (whoever
    // holds it sees the same bytes, now its own). Call it before the lender
    // takes its bytes back from a value that stays in use.
    void MakeOwned();
    // Whether anything besides this value holds it or its lent buffer.
    bool Shared() const noexcept;
    std::string_view StringValue() const noexcept { return Text(); }
    const AutoRefPtr<IUserDefinedType>& ObjectValue() const noexcept { return object_; }

private:
    void Reset(uint32_t type);
    std::string_view Text() const noexcept { return lent_.data() ? lent_ : std::string_view(string_); }

    uint32_t type_;
    bool assigned_ = false;
    bool boolean_ = false;
    double number_ = 0;
    std::string string_;
    std::string_view lent_;  // set for a lent string, which string_ then does not hold
    bool lentData_ = false;  // data_ is a LentBytes buffer
    AutoRefPtr<IDataRef> data_;
    AutoRefPtr<IStream> stream_;
    AutoRefPtr<IUserDefinedType> object_;
    AutoRefPtr<IVectorGeneric> vector_;
    AutoRefPtr<IMapGeneric> map_;
};

class Vector final : public UseCounted<IVectorGeneric> {
public:
    explicit Vector(uint32_t elementType) : elementType_(elementType) {}

    uint32_t GetElementType() const override { return elementType_; }
    uint64_t GetSize() const override { return elements_.size(); }
    AutoRefPtr<IVariant> GetElement(uint64_t index) const override;
    bool Append(const IVariant* value) override;
    bool AppendBoolean(bool value) override;
    bool AppendNumber(double value) override;
    bool AppendString(const char* value, uint64_t size) override;
    bool AppendData(AutoRefPtr<IDataRef> value) override;
    bool AppendUserDefined(AutoRefPtr<IUserDefinedType> value) override;
    void Clear() override { elements_.clear(); }

private:
    bool Accept(AutoRefPtr<Variant> value);

    uint32_t elementType_;
    std::vector<AutoRefPtr<Variant>> elements_;
};

// Name of a built-in type code ("STRING", "VECTOR<DATAREF>"), empty for custom codes.
std::string BuiltinTypeName(uint32_t code);

}  // namespace Ombrix::Host
