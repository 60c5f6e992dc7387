# RESTCLIENT_SANITIZE: a list of sanitizers (address, undefined, thread, leak) applied to
# everything built here. Each flag is checked to compile before it is used.
set(RESTCLIENT_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. 'address;undefined' or 'thread'")

include(CheckCXXSourceCompiles)
foreach(sanitizer IN LISTS RESTCLIENT_SANITIZE)
  set(flag "-fsanitize=${sanitizer}")
  set(CMAKE_REQUIRED_FLAGS "${flag}")
  set(CMAKE_REQUIRED_LINK_OPTIONS "${flag}")
  check_cxx_source_compiles("int main() { return 0; }" RESTCLIENT_HAS_SANITIZER_${sanitizer})
  unset(CMAKE_REQUIRED_FLAGS)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  if(NOT RESTCLIENT_HAS_SANITIZER_${sanitizer})
    message(FATAL_ERROR "The compiler does not support ${flag}")
  endif()
  add_compile_options(${flag} -fno-omit-frame-pointer)
  add_link_options(${flag})
endforeach()
# Light optimisation and line tables only: a sixth less compile time than -O2 -g for the Beast-heavy
# files, and reports still name file and line. (-O0 would halve it, but Boost.Asio 1.74 built by clang
# 14 without optimisation crashes in its executor.)
if(RESTCLIENT_SANITIZE)
  add_compile_options(-O1 $<IF:$<CXX_COMPILER_ID:Clang>,-gline-tables-only,-g1>)
endif()
# UBSan otherwise prints its report and carries on, and the test that made it passes.
if("undefined" IN_LIST RESTCLIENT_SANITIZE)
  add_compile_options(-fno-sanitize-recover=all)
endif()

# The fuzzers see coverage of all they reach; only they link libFuzzer itself (fuzz/).
if(RESTCLIENT_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
