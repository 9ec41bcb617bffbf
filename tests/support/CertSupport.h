// Certificate helpers: fixtures of tests/data/certs/make_certs.sh, values made through the engine.
#pragma once

#include <nlohmann/json.hpp>

#include "KeysSupport.h"

namespace Testing {

inline std::string CertFixturePath(const std::string& name) { return DataPath("certs/" + name); }
inline std::string CertFixture(const std::string& name) { return ReadFile(CertFixturePath(name)); }

// The JSON text a result holds ("" when none), and its value (null when none), members in their order.
inline std::string JsonText(const CallOutcome& outcome) {
    const auto json = outcome.result ? outcome.result->ObjectValue().DynamicCast<Ombrix::IJSON>() : nullptr;
    return json ? json->ToJSONText() : "";
}
inline nlohmann::ordered_json JsonResult(const CallOutcome& outcome) {
    const std::string text = JsonText(outcome);
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json::parse(text);
}

class CertTest : public ModuleTest {
public:
    // The result of a call that must not report.
    AutoRefPtr<IVariant> Result(const CallOutcome& outcome) {
        EXPECT_TRUE(outcome.ok()) << (outcome.error() ? outcome.error()->message : "");
        return AutoRefPtr<IVariant>(outcome.result);
    }
    AutoRefPtr<IVariant> Cert(const std::string& pem) { return Result(Call("Cryptography.X509FromPEM", {Str(pem)})); }
    AutoRefPtr<IVariant> CertFile(const std::string& name) { return Cert(CertFixture(name)); }
    AutoRefPtr<IVariant> NewCert() { return Result(Call("Cryptography.CreateX509", {})); }
    AutoRefPtr<IVariant> KeyFile(const std::string& name) {
        return Result(Call("Cryptography.KeyFromPEM", {Str(CertFixture(name))}));
    }
    std::string ToPEM(const AutoRefPtr<IVariant>& cert) { return ResultString(Call("Cryptography.ToPEM", {cert})); }
    std::string ToDER(const AutoRefPtr<IVariant>& cert) { return ResultBytes(Call("Cryptography.ToDER", {cert})); }
    std::vector<std::string> Purposes(const AutoRefPtr<IVariant>& cert) {
        const AutoRefPtr<IVariant> result = Result(Call("Cryptography.GetPurpose", {cert}));
        EXPECT_EQ(result->GetType(), Ombrix::kTypeStringVector);
        return Elements(result, [](const AutoRefPtr<IVariant>& purpose) { return std::string(purpose->GetString()); });
    }
    bool Boolean(std::string_view routine, Args args) { return Result(Call(routine, std::move(args)))->GetBoolean(); }
    double Number(std::string_view routine, Args args) { return Result(Call(routine, std::move(args)))->GetNumber(); }
    void Do(std::string_view routine, Args args) { EXPECT_TRUE(Call(routine, std::move(args)).ok()) << routine; }
};

}  // namespace Testing
