// Interim driver: loads the module through the engine and prints a digest.
#include <cstdio>
#include <string>
#include <unistd.h>
#include <linux/limits.h>

#include "Engine.h"
#include "Ombrix/Data.h"

int main() {
    char self[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string("./ombrix");
    dir = dir.substr(0, dir.rfind('/'));
    Ombrix::Host::Engine engine;
    engine.Load(dir + "/libCryptography.so");
    auto outcome = engine.Call("Cryptography.Hash", {Ombrix::Host::Variant::String("SHA256"), Ombrix::Host::Variant::String("abc")});
    auto data = outcome.result->GetData();
    std::printf("SHA256(abc) has %llu bytes\n", static_cast<unsigned long long>(data ? data->GetSize() : 0));
    return 0;
}
