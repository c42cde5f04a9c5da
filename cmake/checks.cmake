# The tests again under AddressSanitizer with UndefinedBehaviorSanitizer and
# under ThreadSanitizer, and bounded fuzzing of the two parsers (with clang's
# libFuzzer). Each is a build of its own beside this one, made by the normal
# build; one ctest test per build runs all of its tests.
include(ExternalProject)

function(tarnel_sanitized_build name checks)
  set(dir ${CMAKE_BINARY_DIR}/${name})
  ExternalProject_Add(${name}
    SOURCE_DIR ${PROJECT_SOURCE_DIR}
    BINARY_DIR ${dir}
    CMAKE_ARGS -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
               -DTARNEL_TESTS=ON -DTARNEL_FAULT_MODEL=OFF -DTARNEL_SANITIZE=${checks}
    BUILD_COMMAND ${CMAKE_COMMAND} --build ${dir} -j2
    INSTALL_COMMAND ""
    BUILD_ALWAYS ON
    USES_TERMINAL_BUILD ON)
  add_test(NAME ${name} COMMAND ${CMAKE_CTEST_COMMAND} --test-dir ${dir} --output-on-failure -j2)
  set_tests_properties(${name} PROPERTIES TIMEOUT 1800 ENVIRONMENT "${ARGN}")
endfunction()

tarnel_sanitized_build(sanitize-address address,undefined
  "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1;UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
tarnel_sanitized_build(sanitize-thread thread "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

find_program(CLANGXX NAMES clang++ clang++-14 REQUIRED)
set(fuzz_dir ${CMAKE_BINARY_DIR}/fuzz)
ExternalProject_Add(fuzz
  SOURCE_DIR ${PROJECT_SOURCE_DIR}/fuzz
  BINARY_DIR ${fuzz_dir}
  CMAKE_ARGS -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=${CLANGXX}
  BUILD_COMMAND ${CMAKE_COMMAND} --build ${fuzz_dir} -j2
  INSTALL_COMMAND ""
  BUILD_ALWAYS ON
  USES_TERMINAL_BUILD ON)

# A bounded run over the corpus kept in the tree: new inputs go to the build
# directory, never into the tree. No crash, no hang, no sanitizer report.
foreach(target process_args command_line)
  add_test(NAME fuzz.${target}
    COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=1
            ${fuzz_dir}/fuzz_${target} -runs=300000 -timeout=10 -max_len=512
            ${fuzz_dir}/corpus-${target} ${PROJECT_SOURCE_DIR}/fuzz/corpus/${target})
  set_tests_properties(fuzz.${target} PROPERTIES TIMEOUT 600)
endforeach()
