# Warnings, sanitizers and hardening, for every target of this project.
set(V9_CXX_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
add_compile_options(${V9_CXX_WARNINGS} -fno-omit-frame-pointer)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Which thread may touch which field is checked here: base/thread_roles.h has the annotations.
  add_compile_options(-Wthread-safety)
endif()

if(V9_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
elseif(V9_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread)
  add_link_options(-fsanitize=thread)
elseif(NOT V9_SANITIZE STREQUAL "")
  message(FATAL_ERROR "V9_SANITIZE is '${V9_SANITIZE}': use an empty value, address or thread")
endif()

if(V9_COVERAGE)
  # Threads count in the same counters.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

if(V9_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(V9_HARDEN)
  include(CheckPIESupported)
  check_pie_supported()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-fcf-protection HAS_CF_PROTECTION)
  if(HAS_CF_PROTECTION)
    add_compile_options(-fcf-protection)
  endif()
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)
endif()

if(V9_LINT)
  find_program(CLANG_TIDY clang-tidy REQUIRED)
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY};--quiet")
endif()
