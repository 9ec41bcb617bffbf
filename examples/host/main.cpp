// hash_abc [MODULE.so]: loads the Cryptography module (by default the
// installed one) into the reference engine, registers it, calls
// Cryptography.Hash("SHA256", "abc") and prints the digest in hex.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <Ombrix/Data.h>
#include <Ombrix/Host/Engine.h>

// The installed module folder, set by the build: CMake from OmbrixSDK_MODULE_DIR,
// pkg-config users from the ombrix-host variable moduledir.
#ifndef OMBRIX_MODULE_DIR
#error "define OMBRIX_MODULE_DIR: -DOMBRIX_MODULE_DIR=\"$(pkg-config --variable=moduledir ombrix-host)\""
#endif

using Ombrix::AutoRefPtr;
using Ombrix::IVariant;
using Ombrix::Host::Variant;

int main(int argc, char** argv) {
    const std::string modulePath = argc > 1 ? argv[1] : OMBRIX_MODULE_DIR "/libCryptography.so";
    try {
        Ombrix::Host::Engine engine;
        // dlopen, data exports, RegisterModule, binding of every declared routine.
        const Ombrix::Host::LoadedModule& module = engine.Load(modulePath);
        std::fprintf(stderr, "loaded %s %s from %s\n", module.name.c_str(),
                     module.exports.at("GetModuleVersion").c_str(), module.path.c_str());

        std::vector<AutoRefPtr<IVariant>> arguments;
        arguments.emplace_back(Variant::String("SHA256"));
        arguments.emplace_back(Variant::String("abc"));
        const Ombrix::Host::CallOutcome outcome = engine.Call("Cryptography.Hash", std::move(arguments));
        if (!outcome.ok()) {
            const Ombrix::Host::ErrorReport* error = outcome.error();
            std::fprintf(stderr, "Cryptography.Hash failed: %s\n",
                         error ? (error->id + ": " + error->message).c_str() : "argument status");
            return 1;
        }

        // The digest is a byte buffer (DATAREF); read it whether or not it is contiguous.
        std::string hex;
        Ombrix::ForEachChunk(outcome.result->GetData().get(), 4096, [&](const char* bytes, uint64_t size) {
            static constexpr char kDigits[] = "0123456789abcdef";
            for (uint64_t i = 0; i < size; ++i) {
                const auto byte = static_cast<unsigned char>(bytes[i]);
                hex += kDigits[byte >> 4];
                hex += kDigits[byte & 15];
            }
            return true;
        });
        std::printf("%s\n", hex.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "hash_abc: %s\n", e.what());
        return 2;
    }
}
