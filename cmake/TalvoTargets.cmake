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

# Optimised builds compile everything for speed (-O3) but what is named here, where time is spent elsewhere. Sanitizers
# and debuggers keep what they ask for. Sources of a target that other folders define are named from talvo/.
function(talvo_optimise target)
  set(optimised $<OR:$<CONFIG:Release>,$<CONFIG:MinSizeRel>>)
  # Readers, writers and texts: they move bytes through streams and strings, and each field has its own code.
  set(small
      serialization/file_visitors.cpp serialization/inference_param.cpp serialization/json_visitors.cpp
      serialization/layer_info.cpp serialization/layer_info_activation.cpp serialization/layer_info_conv.cpp
      serialization/layer_info_maker.cpp serialization/layer_info_norm.cpp serialization/layer_info_plane.cpp
      serialization/layer_info_rnn.cpp serialization/layer_info_tensor.cpp serialization/model_cfg.cpp
      serialization/model_info.cpp serialization/record_support.cpp serialization/serializable.cpp
      serialization/tlmodel1.cpp serialization/tlmodel1_bodies.cpp serialization/tlmodel1_conversion.cpp
      serialization/visitor.cpp utility/file.cpp utility/generator.cpp utility/invariant.cpp utility/json_file.cpp
      utility/log.cpp utility/metrics.cpp utility/timer.cpp)
  # Front doors and the building of nets run once for a net.
  list(APPEND small
       entry/check_model.cpp entry/create_context.cpp entry/load_model.cpp entry/model.cpp entry/model_support.cpp
       entry/open_package.cpp entry/register_extra_operators.cpp entry/register_fused_operators.cpp
       entry/register_operators.cpp entry/reset_rnn_state.cpp entry/talvo_c.cpp runtime/class_registry.cpp
       runtime/context.cpp runtime/create_net.cpp runtime/device_cpu_forms.cpp runtime/inference_config.cpp
       runtime/kernel.cpp runtime/tensor.cpp runtime/tensor_cpu_reshape.cpp)
  # Kernels judge their arguments and call loops, which stand in functional/, native/ and rows/ or in sources of their
  # own.
  list(APPEND small
       image/bilinear_support.cpp image/color.cpp image/crop.cpp image/frame.cpp image/image_process.cpp
       image/image_process_fallback.cpp image/image_support.cpp image/normalise.cpp image/resize.cpp
       image/rotate_flip.cpp image/yuv.cpp kernel/activation.cpp kernel/convolution.cpp kernel/direct_convolution.cpp
       kernel/elementwise.cpp kernel/functional/activation.cpp kernel/functional/gemm.cpp
       kernel/functional/quantisation.cpp kernel/functional/recurrent.cpp kernel/fused_convolution.cpp kernel/gemm.cpp
       kernel/kernel_judge_support.cpp kernel/kernel_of.cpp kernel/native/recurrent.cpp kernel/native/structural.cpp
       kernel/padding.cpp kernel/pointwise_convolution.cpp kernel/pooling.cpp kernel/quantisation.cpp
       kernel/recurrent.cpp kernel/resampling.cpp kernel/sgemm.cpp kernel/structural.cpp
       kernel/transposed_convolution.cpp
       transform/element_conversion.cpp transform/permute.cpp transform/reshape.cpp transform/transform_fallback.cpp
       transform/transform_support.cpp)
  # The text of a model, and what calls vector loops: short paths that inlining serves, and no loop for vectors. Warps
  # and slices find a place for each element.
  set(plain
      image/warp.cpp kernel/functional/pooling.cpp kernel/functional/resampling.cpp kernel/functional/structural.cpp
      kernel/native/permute.cpp kernel/recurrent_support.cpp serialization/json_text_support.cpp
      serialization/tlmodel1_weights.cpp serialization/weight_blob.cpp)
  # The walk, tensors and pools: as those, and pointers that stand side by side are moved one by one. What is read as a
  # pair waits until both of its halves, written by themselves a moment ago, have reached the cache.
  set(walk
      kernel/kernel_support.cpp runtime/device_cpu.cpp runtime/memory_pool.cpp runtime/net.cpp runtime/tensor_cpu.cpp
      runtime/tensor_shape.cpp)
  # Leaves: they call nothing that throws, so that no exception passes and no table need say how.
  set(leaves
      image/yuv_rows_support.cpp kernel/functional/resampling_rows_support.cpp kernel/native/fill_support.cpp
      kernel/rows/base64_rows.cpp kernel/rows/conversion_rows.cpp kernel/rows/convolution_tile.cpp
      kernel/rows/elementwise_rows.cpp kernel/rows/exponential.cpp kernel/rows/fused_product.cpp kernel/rows/gates.cpp
      kernel/rows/matrix_product.cpp kernel/rows/mixed_channels.cpp kernel/rows/phase_plane.cpp kernel/rows/pixels.cpp
      kernel/rows/pooling_rows.cpp kernel/rows/position_rows.cpp kernel/rows/samples.cpp kernel/rows/transpose.cpp)
  # Loops of one operation for each element go in vectors at -O2 as well. -O3, and remainders in narrower vectors, would
  # write most of them out a second and a third time, for the last few elements of a row.
  set(loops
      image/yuv_rows_support.cpp kernel/functional/elementwise.cpp kernel/native/fill_support.cpp
      kernel/native/softmax_support.cpp kernel/rows/conversion_rows.cpp kernel/rows/elementwise_rows.cpp
      kernel/rows/fused_product.cpp kernel/rows/matrix_product.cpp kernel/rows/mixed_channels.cpp
      kernel/rows/pixels.cpp kernel/rows/samples.cpp)
  # Many small functions, most of which throw nothing, or end in a call that leaves no frame behind. Where g++ writes
  # the tables of exceptions itself, not the assembler, it leaves such functions out.
  set(shells
      entry/load_model.cpp entry/register_extra_operators.cpp entry/register_fused_operators.cpp
      entry/register_operators.cpp runtime/inference_config.cpp serialization/inference_param.cpp
      serialization/layer_info_plane.cpp serialization/layer_info_tensor.cpp serialization/model_cfg.cpp
      serialization/model_info.cpp serialization/serializable.cpp)
  foreach(source ${small} ${plain} ${walk} ${leaves} ${loops} ${shells})
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${source})
      message(FATAL_ERROR "talvo_optimise names ${source}, which is not there")
    endif()
  endforeach()
  set_source_files_properties(${small} TARGET_DIRECTORY ${target} PROPERTIES COMPILE_OPTIONS $<${optimised}:-Os>)
  set_source_files_properties(${plain} TARGET_DIRECTORY ${target} PROPERTIES COMPILE_OPTIONS $<${optimised}:-O2>)
  set_source_files_properties(${walk} TARGET_DIRECTORY ${target} PROPERTIES COMPILE_OPTIONS
    "$<${optimised}:-O2;-fno-tree-slp-vectorize>")
  set_source_files_properties(${leaves} TARGET_DIRECTORY ${target} PROPERTIES COMPILE_OPTIONS
    "$<${optimised}:-fno-exceptions;-fno-unwind-tables;-fno-asynchronous-unwind-tables>")
  set_property(SOURCE ${loops} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS "$<${optimised}:-O2>"
    "$<$<AND:${optimised},$<CXX_COMPILER_ID:GNU>>:-fvect-cost-model=dynamic;-fversion-loops-for-strides>"
    "$<$<AND:${optimised},$<CXX_COMPILER_ID:GNU>>:--param=vect-epilogues-nomask=0>")
  set_property(SOURCE ${shells} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS
    "$<$<AND:${optimised},$<CXX_COMPILER_ID:GNU>>:-fno-asynchronous-unwind-tables;-fno-dwarf2-cfi-asm>")
endfunction()

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

# A fuzz target, of the library's objects or of what is named. Without libFuzzer it gets a main that replays the seed
# corpus fuzz/corpus/<name>, as a test.
function(talvo_add_fuzz name)
  add_executable(fuzz_${name} ${name}.cpp)
  if(ARGN)
    target_link_libraries(fuzz_${name} PRIVATE ${ARGN} talvo_warnings)
  else()
    target_link_libraries(fuzz_${name} PRIVATE tln_core_objects talvo_numeric talvo_warnings)
  endif()
  if(TALVO_LIBFUZZER)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(fuzz_${name} PRIVATE replay_main.cpp)
    if(TALVO_BUILD_TESTS)
      add_test(NAME fuzz_${name}_corpus COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    endif()
  endif()
endfunction()
