# Interface targets and functions that every folder's CMakeLists.txt uses.
include(CheckLinkerFlag)

# The same bits everywhere: no fused multiplication and addition, no assumption that changes a float result.
add_library(talvo_numeric INTERFACE)
target_compile_options(talvo_numeric INTERFACE -ffp-contract=off -fno-math-errno -fno-trapping-math)

add_library(talvo_warnings INTERFACE)
target_compile_options(talvo_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TALVO_WERROR)
  target_compile_options(talvo_warnings INTERFACE -Werror)
endif()

# How the shared library is linked, so that it stays small and starts fast.
function(talvo_link_small target)
  # Only what is marked is exported; a change of the list links again.
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_link_options(${target} PRIVATE LINKER:--version-script=${exports})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${exports})
  # Calls inside the library go straight to their function; what nothing reaches is left out; tables are sorted.
  target_link_options(${target} PRIVATE LINKER:-Bsymbolic LINKER:--gc-sections LINKER:-O1)
  # Tables of pointers take a bit for each pointer instead of 24 bytes. A C library that cannot read them refuses the
  # library by name (GLIBC_ABI_DT_RELR); the linker writes them only where its C library, from 2.36 on, can.
  check_linker_flag(CXX LINKER:-z,pack-relative-relocs TALVO_LINKER_PACKS_RELOCATIONS)
  if(TALVO_LINKER_PACKS_RELOCATIONS)
    target_link_options(${target} PRIVATE LINKER:-z,pack-relative-relocs)
  endif()
endfunction()

# A program that links the library as any application does.
function(talvo_add_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE talvo::tln_core talvo_warnings)
endfunction()

# A test program over the library's objects, so that internal headers can be tested too.
function(talvo_add_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tln_core_objects talvo_test_support talvo_numeric talvo_warnings GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                       PROPERTIES TIMEOUT 300)
endfunction()

# A benchmark program; it links the objects as well, so that primitives can be measured alone.
function(talvo_add_bench name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tln_core_objects talvo_numeric talvo_warnings benchmark::benchmark)
endfunction()

# A fuzz target. Without libFuzzer it gets a main that replays the seed corpus fuzz/corpus/<name>, as a test.
function(talvo_add_fuzz name)
  add_executable(fuzz_${name} ${name}.cpp)
  target_link_libraries(fuzz_${name} PRIVATE tln_core_objects talvo_numeric talvo_warnings)
  if(TALVO_LIBFUZZER)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(fuzz_${name} PRIVATE replay_main.cpp)
    if(TALVO_BUILD_TESTS)
      add_test(NAME fuzz_${name}_corpus COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    endif()
  endif()
endfunction()
