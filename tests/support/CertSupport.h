// Helpers of the certificate tests: fixtures made by the openssl command,
// running openssl from a test, and certificate values made through the engine.
#pragma once

#include <nlohmann/json.hpp>

#include "Harness.h"

namespace Testing {

// A file of tests/data/certs.
std::string CertFixture(const std::string& name);
std::string CertFixturePath(const std::string& name);

struct ShellResult {
    int status = -1;
    std::string output;  // standard output
};
ShellResult RunShell(const std::string& command);

// A fresh directory, removed with its files when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string Write(const std::string& name, const std::string& content) const;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

class CertTest : public ModuleTest {
public:
    // Cryptography.X509FromPEM of a text or of a fixture file.
    AutoRefPtr<IVariant> Cert(const std::string& pem);
    AutoRefPtr<IVariant> CertFile(const std::string& name) { return Cert(CertFixture(name)); }
    AutoRefPtr<IVariant> NewCert();
    // A Cryptography.Key restored from a PEM fixture file.
    AutoRefPtr<IVariant> KeyFile(const std::string& name);

    std::string ToPEM(const AutoRefPtr<IVariant>& cert);
    std::string ToDER(const AutoRefPtr<IVariant>& cert);
    bool Boolean(std::string_view routine, Args args);
    double Number(std::string_view routine, Args args);
    // Runs a procedure and expects neither a status nor an error.
    void Do(std::string_view routine, Args args);
};

// The JSON value a result holds (null when none).
nlohmann::json JsonResult(const CallOutcome& outcome);

}  // namespace Testing
