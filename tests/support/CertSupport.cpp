#include "CertSupport.h"

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "Ombrix/Json.h"

namespace Testing {

std::string CertFixturePath(const std::string& name) { return DataPath("certs/" + name); }
std::string CertFixture(const std::string& name) { return ReadFile(CertFixturePath(name)); }

ShellResult RunShell(const std::string& command) {
    ShellResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, got);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "certtest.XXXXXX").string();
    if (mkdtemp(pattern.data())) path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
    const std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

AutoRefPtr<IVariant> CertTest::Cert(const std::string& pem) {
    CallOutcome outcome = Call("Cryptography.X509FromPEM", {Str(pem)});
    EXPECT_TRUE(outcome.ok());
    return AutoRefPtr<IVariant>(outcome.result);
}

AutoRefPtr<IVariant> CertTest::NewCert() {
    CallOutcome outcome = Call("Cryptography.CreateX509", {});
    EXPECT_TRUE(outcome.ok());
    return AutoRefPtr<IVariant>(outcome.result);
}

AutoRefPtr<IVariant> CertTest::KeyFile(const std::string& name) {
    const nlohmann::json value = {{"value", CertFixture(name)}};
    AutoRefPtr<Ombrix::IUserDefinedType> key = engine_.Deserialize("Cryptography.Key", value.dump());
    EXPECT_TRUE(key) << name;
    return Obj(key);
}

std::string CertTest::ToPEM(const AutoRefPtr<IVariant>& cert) { return ResultString(Call("Cryptography.ToPEM", {cert})); }
std::string CertTest::ToDER(const AutoRefPtr<IVariant>& cert) { return ResultBytes(Call("Cryptography.ToDER", {cert})); }

bool CertTest::Boolean(std::string_view routine, Args args) {
    CallOutcome outcome = Call(routine, std::move(args));
    EXPECT_TRUE(outcome.ok()) << routine;
    return outcome.result && outcome.result->GetBoolean();
}

double CertTest::Number(std::string_view routine, Args args) {
    CallOutcome outcome = Call(routine, std::move(args));
    EXPECT_TRUE(outcome.ok()) << routine;
    return outcome.result ? outcome.result->GetNumber() : 0;
}

void CertTest::Do(std::string_view routine, Args args) {
    CallOutcome outcome = Call(routine, std::move(args));
    EXPECT_TRUE(outcome.ok()) << routine << " status " << outcome.status;
}

nlohmann::json JsonResult(const CallOutcome& outcome) {
    if (!outcome.result) return nullptr;
    AutoRefPtr<Ombrix::IUserDefinedType> held(outcome.result->GetUserDefinedPtr());
    AutoRefPtr<Ombrix::IJSON> json = held.DynamicCast<Ombrix::IJSON>();
    return json ? nlohmann::json::parse(json->ToJSONText()) : nlohmann::json();
}

}  // namespace Testing
