// JSONWrapper: the IJSON implementation over nlohmann::ordered_json that the
// host's JSON module and the module's own serialisation share. Object members
// keep the order they were first set in (parsing, Set, writing, saving and
// restoring alike); setting an existing member replaces its value in place.
#pragma once

#include <nlohmann/json.hpp>

#include "Ombrix/Interfaces.h"

namespace Ombrix::JSON {

using Document = nlohmann::ordered_json;

class JSONWrapper final : public UseCounted<IJSON> {
public:
    explicit JSONWrapper(Document value = Document::object()) : value_(std::move(value)) {}

    static AutoRefPtr<JSONWrapper> Make(Document value = Document::object()) {
        return AutoRefPtr<JSONWrapper>(new JSONWrapper(std::move(value)));
    }
    // Parses JSON text; null when the text is not JSON.
    static AutoRefPtr<JSONWrapper> Parse(std::string_view text);
    // The value of any IJSON, copied without a text round trip when it is ours.
    static Document ValueOf(const IJSON& json);

    // The host's type code for JSON values; kTypeJSON unless the host numbers it otherwise.
    void SetTypeId(uint32_t typeId) noexcept { typeId_ = typeId; }

    const Document& Value() const noexcept { return value_; }
    Document& Value() noexcept { return value_; }

    // IUserDefinedType
    const char* GetName() const override { return "JSON"; }
    AutoRefPtr<IUserDefinedType> Clone() const override { return AutoRefPtr<IUserDefinedType>(Copy()); }
    uint32_t GetType() const override { return typeId_; }
    bool Compare(const IUserDefinedType* other, Comparison comparison) const override;
    bool Interface_Deserialize(const IJSON* json, IContext*) override { return Interface_Deserialize(json); }
    bool Interface_Deserialize(const IJSON* json) override;
    AutoRefPtr<IJSON> Interface_Serialize(IContext*) const override { return Interface_Serialize(); }
    AutoRefPtr<IJSON> Interface_Serialize() const override { return AutoRefPtr<IJSON>(Copy()); }
    bool FromBinaryData(const void*, uint64_t, uint32_t) override { return false; }
    uint64_t ToBinaryData(void**, uint32_t) const override { return 0; }

    // IJSON
    Kind GetKind() const override;
    bool HasMember(const char* key) const override;
    AutoRefPtr<IJSON> GetMember(const char* key) const override;
    bool GetMemberString(const char* key, std::string& out) const override;
    bool GetMemberBoolean(const char* key, bool& out) const override;
    bool GetMemberNumber(const char* key, double& out) const override;
    bool SetMember(const char* key, const IJSON* value) override;
    bool SetMemberString(const char* key, const char* value, uint64_t size) override;
    bool SetMemberNumber(const char* key, double value) override;
    bool SetMemberUInt64(const char* key, uint64_t value) override;
    bool SetMemberBoolean(const char* key, bool value) override;
    uint64_t GetArraySize() const override;
    AutoRefPtr<IJSON> GetElement(uint64_t index) const override;
    bool Append(const IJSON* value) override;
    bool GetStringValue(std::string& out) const override;
    bool GetNumberValue(double& out) const override;
    bool GetBooleanValue(bool& out) const override;
    std::string ToJSONText() const override;

private:
    JSONWrapper* Copy() const {
        auto* copy = new JSONWrapper(value_);
        copy->typeId_ = typeId_;
        return copy;
    }
    const Document* Find(const char* key) const;
    template <class T>
    bool Set(const char* key, T&& value);

    Document value_;
    uint32_t typeId_ = kTypeJSON;
};

}  // namespace Ombrix::JSON
