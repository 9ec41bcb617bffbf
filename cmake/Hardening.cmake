# Compiler and linker hardening, after Debian's dpkg-buildflags set: stack
# protector, fortified libc calls, stack-clash probes, control-flow protection
# (IBT/SHSTK on x86, branch protection on arm64), RELRO with immediate binding
# and position-independent executables. Every flag is tested first, so a
# compiler without one still builds. _FORTIFY_SOURCE needs optimisation and is
# only set for the optimised configurations; level 3 where the compiler has
# __builtin_dynamic_object_size, 2 otherwise.
#
# Sanitizer and fuzz builds are left unhardened: their runtimes intercept the
# plain libc calls, and the fortified ones would slip past them.
# Sets OMBRIX_HARDENED (read by Packaging.cmake).
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)
include(CheckPIESupported)

option(OMBRIX_HARDEN "Build with hardening flags (stack protector, _FORTIFY_SOURCE, RELRO/BIND_NOW, ...)" ON)

# Format warnings are checks, not code generation: every build has them.
add_compile_options(-Wformat -Werror=format-security)

set(OMBRIX_HARDENED OFF)
if(OMBRIX_HARDEN AND (OMBRIX_SANITIZE OR OMBRIX_TSAN OR OMBRIX_FUZZ))
  message(STATUS "Hardening flags left out: a sanitizer build")
elseif(OMBRIX_HARDEN)
  set(OMBRIX_HARDENED ON)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    if(flag STREQUAL "-mbranch-protection=standard" AND OMBRIX_HAS_FCF_PROTECTION)
      continue()  # x86 has control-flow protection; branch protection is arm64's
    endif()
    string(MAKE_C_IDENTIFIER "OMBRIX_HAS${flag}" var)
    string(TOUPPER "${var}" var)
    check_cxx_compiler_flag(${flag} ${var})
    if(${var})
      add_compile_options(${flag})
    endif()
  endforeach()

  set(CMAKE_REQUIRED_FLAGS "-O2 -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles([[
    #include <cstring>
    #if !defined(__has_builtin) || !__has_builtin(__builtin_dynamic_object_size)
    #error no dynamic object size
    #endif
    int main() { return 0; }]] OMBRIX_HAS_FORTIFY_SOURCE_3)
  unset(CMAKE_REQUIRED_FLAGS)
  set(OMBRIX_FORTIFY_LEVEL 2)
  if(OMBRIX_HAS_FORTIFY_SOURCE_3)
    set(OMBRIX_FORTIFY_LEVEL 3)
  endif()
  # -U first: some compilers (and CPPFLAGS) already define a level.
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${OMBRIX_FORTIFY_LEVEL}>")

  check_linker_flag(CXX "LINKER:-z,relro,-z,now" OMBRIX_HAS_RELRO_NOW)
  if(OMBRIX_HAS_RELRO_NOW)
    add_link_options("LINKER:-z,relro,-z,now")
  endif()
  check_pie_supported(OUTPUT_VARIABLE pie_message LANGUAGES CXX)
  if(NOT CMAKE_CXX_LINK_PIE_SUPPORTED)
    message(WARNING "Executables are not linked position-independent: ${pie_message}")
  endif()
endif()
