# Debian packages with CPack (cpack -G DEB in the build folder):
#   ombrix             the command, the Cryptography module, manual page, docs, examples
#   libombrix-sdk-dev  the SDK headers and libraries, CMake package, pkg-config files
# Runtime dependencies come from the binaries (dpkg-shlibdeps). The synopsis of
# each package is the first line of its component description.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ombrix)
set(CPACK_PACKAGE_VENDOR "The Cryptography for Ombrix authors")
set(CPACK_PACKAGE_CONTACT "${OMBRIX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime sdk)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ombrix)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION interpreters)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Lua 5.4 command with OpenSSL 3 cryptography for Ombrix scripts
The ombrix command runs Lua 5.4 scripts, or an interactive prompt, against
Ombrix modules. It comes with the Cryptography module, which gives scripts
OpenSSL 3 ciphers, AES-GCM and ChaCha20-Poly1305, digests, HMAC, PBKDF2,
random data, keys, signatures, X.509 certificates and a TLS client.")

set(CPACK_DEBIAN_SDK_PACKAGE_NAME libombrix-sdk-dev)
set(CPACK_DEBIAN_SDK_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_SDK_PACKAGE_DEPENDS "nlohmann-json3-dev (>= 3)")
set(CPACK_DEBIAN_SDK_PACKAGE_RECOMMENDS "ombrix (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_SDK_DESCRIPTION
    "Ombrix SDK for module and host authors (C++20)
Headers and static libraries for writing Ombrix modules and hosts: the host
interfaces, byte buffers, custom types, routine adapters and JSON value, and
the reference engine that loads modules, binds their routines and runs calls.
Found by CMake with find_package(OmbrixSDK CONFIG) and by pkg-config as
ombrix-sdk and ombrix-host.")

# Packages are made from a hardened, optimised build only (cmake/Hardening.cmake):
# cpack refuses any other, so no unhardened binary ships by mistake.
set(CPACK_OMBRIX_HARDENED OFF)
if(OMBRIX_HARDENED AND CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
  set(CPACK_OMBRIX_HARDENED ON)
endif()
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackHardened.cmake)
file(WRITE ${CPACK_PROJECT_CONFIG_FILE} [[
if(NOT CPACK_OMBRIX_HARDENED)
  message(FATAL_ERROR "Debian packages need a hardened Release or RelWithDebInfo build (OMBRIX_HARDEN, no sanitizer)")
endif()
]])

include(CPack)
