# One static library per folder, built from every .cpp there that is not a
# test, a benchmark or a fuzz target; each Name_test.cpp beside it becomes one
# test executable registered with CTest.
#
#   kestro_library(NAME util DEPS libzero PCRE2)
function(kestro_library)
  cmake_parse_arguments(K "" "NAME" "DEPS;TEST_DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  list(FILTER sources EXCLUDE REGEX "_(fuzz|main)\\.cpp$")
  if(sources)
    add_library(${K_NAME} STATIC ${sources})
    target_include_directories(${K_NAME} PUBLIC ${CMAKE_SOURCE_DIR})
    target_link_libraries(${K_NAME} PUBLIC ${K_DEPS})
  else()
    add_library(${K_NAME} INTERFACE)
    target_include_directories(${K_NAME} INTERFACE ${CMAKE_SOURCE_DIR})
    target_link_libraries(${K_NAME} INTERFACE ${K_DEPS})
  endif()
  foreach(t IN LISTS tests)
    get_filename_component(tname ${t} NAME_WE)
    set(exe ${K_NAME}_${tname})
    add_executable(${exe} ${t})
    target_link_libraries(${exe} PRIVATE ${K_NAME} ${K_TEST_DEPS} GTest::gtest GTest::gtest_main GTest::gmock)
    # Where the checkout is, for tests that read files shipped in it (home/,
    # test data): __FILE__ may be relative when the compiler cache rewrites
    # paths.
    target_compile_definitions(${exe} PRIVATE KESTRO_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    target_compile_options(${exe} PRIVATE ${KESTRO_TEST_WARNING_OPTIONS})
    add_test(NAME ${K_NAME}.${tname} COMMAND ${exe} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  endforeach()
endfunction()
