// JSONWrapper: the IJSON implementation over nlohmann::json that the host's
// JSON module and the module's own serialisation share.
#pragma once

#include <nlohmann/json.hpp>

#include "Ombrix/Interfaces.h"

namespace Ombrix::JSON {

class JSONWrapper final : public UseCounted<IJSON> {
public:
    explicit JSONWrapper(nlohmann::json value = nlohmann::json::object()) : value_(std::move(value)) {}

    static AutoRefPtr<JSONWrapper> Make(nlohmann::json value = nlohmann::json::object()) {
        return AutoRefPtr<JSONWrapper>(new JSONWrapper(std::move(value)));
    }
    // Parses JSON text; null when the text is not JSON.
    static AutoRefPtr<JSONWrapper> Parse(std::string_view text);
    // The value of any IJSON, copied without a text round trip when it is ours.
    static nlohmann::json ValueOf(const IJSON& json);

    const nlohmann::json& Value() const noexcept { return value_; }
    nlohmann::json& Value() noexcept { return value_; }

    // IUserDefinedType
    const char* GetName() const override { return "JSON"; }
    AutoRefPtr<IUserDefinedType> Clone() const override { return AutoRefPtr<IUserDefinedType>(new JSONWrapper(value_)); }
    uint32_t GetType() const override { return kTypeJSON; }
    bool Compare(const IUserDefinedType* other, Comparison comparison) const override;
    bool Interface_Deserialize(const IJSON* json, IContext*) override { return Interface_Deserialize(json); }
    bool Interface_Deserialize(const IJSON* json) override;
    AutoRefPtr<IJSON> Interface_Serialize(IContext*) const override { return Interface_Serialize(); }
    AutoRefPtr<IJSON> Interface_Serialize() const override { return AutoRefPtr<IJSON>(new JSONWrapper(value_)); }
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
    const nlohmann::json* Find(const char* key) const;
    template <class T>
    bool Set(const char* key, T&& value);

    nlohmann::json value_;
};

}  // namespace Ombrix::JSON
