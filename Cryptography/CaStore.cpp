#include "CaStore.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "openssl/AtUnload.h"

namespace Cryptography {

namespace {

// What identifies one state of a path: a change of content, a replacement or
// a removal changes it.
struct PathState {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long modifiedSeconds = 0, modifiedNanoseconds = 0, changedSeconds = 0, changedNanoseconds = 0;

    static PathState Of(const std::string& path) {
        PathState state;
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) return state;
        state.exists = true;
        state.device = info.st_dev;
        state.inode = info.st_ino;
        state.size = info.st_size;
        state.modifiedSeconds = info.st_mtim.tv_sec;
        state.modifiedNanoseconds = info.st_mtim.tv_nsec;
        state.changedSeconds = info.st_ctim.tv_sec;
        state.changedNanoseconds = info.st_ctim.tv_nsec;
        return state;
    }
    bool operator==(const PathState&) const = default;
};

// The default locations as OpenSSL resolves them (the environment wins, read
// the way OpenSSL reads it), with the state of each path. The directory value
// may list several directories separated by ':'.
struct Locations {
    std::string file, directories;
    std::vector<PathState> states;

    static Locations Current() {
        Locations current;
        const char* file = secure_getenv(X509_get_default_cert_file_env());
        const char* directories = secure_getenv(X509_get_default_cert_dir_env());
        current.file = file ? file : X509_get_default_cert_file();
        current.directories = directories ? directories : X509_get_default_cert_dir();
        current.states.push_back(PathState::Of(current.file));
        for (size_t start = 0; start <= current.directories.size();) {
            size_t end = current.directories.find(':', start);
            if (end == std::string::npos) end = current.directories.size();
            current.states.push_back(PathState::Of(current.directories.substr(start, end - start)));
            start = end + 1;
        }
        return current;
    }
    bool operator==(const Locations&) const = default;
};

// The shared store and the locations it was built from. Plain pointers and a
// mutex with trivial destruction.
std::mutex guard;
X509_STORE* shared = nullptr;
Locations* sharedFrom = nullptr;

bool HoldsStore() { return shared != nullptr; }
void FreeShared() {
    X509_STORE_free(shared);
    shared = nullptr;
    delete sharedFrom;
    sharedFrom = nullptr;
}
const OpenSSL::AtUnload<HoldsStore, FreeShared> reaper;

// A new reference to the store for the current locations, building it when
// they changed; null when no store could be made.
X509_STORE* CurrentStore() {
    Locations current = Locations::Current();
    const std::lock_guard<std::mutex> lock(guard);
    if (!shared || !sharedFrom || !(*sharedFrom == current)) {
        X509_STORE* built = X509_STORE_new();
        if (!built || !X509_STORE_set_default_paths(built)) {
            X509_STORE_free(built);
            return nullptr;
        }
        auto* from = new (std::nothrow) Locations(std::move(current));
        if (!from) {
            X509_STORE_free(built);
            return nullptr;
        }
        X509_STORE_free(shared);
        delete sharedFrom;
        shared = built;
        sharedFrom = from;
    }
    return X509_STORE_up_ref(shared) ? shared : nullptr;
}

}  // namespace

bool UseDefaultVerifyPaths(SSL_CTX* context) {
    X509_STORE* store = CurrentStore();
    if (!store) return false;
    ERR_clear_error();
    SSL_CTX_set_cert_store(context, store);  // takes the reference
    return true;
}

}  // namespace Cryptography
