# kestrin_add_library(<name> SOURCES <src>... [PUBLIC_DEPS <target>...] [PRIVATE_DEPS <target>...]
#                     [HEADER_DIR <dir>] [HEADERS <header>...])
#
# Makes the library kestrin_<name> with the alias kestrin::<name> from libs/<name>: public headers
# in include/kestrin/<name>/, sources in src/. Every public header is also compiled on its own, so a
# header that forgets one of its includes breaks the build.
#
# Two libraries may share one folder (libs/app holds the Qt-free rules and the Qt view model): then
# HEADER_DIR names the folder under include/kestrin/ (default <name>) and HEADERS lists the file
# names there that belong to this library (default: every .hpp in it), so that each header is
# checked against the library whose dependencies it needs.
function(kestrin_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "HEADER_DIR" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS;HEADERS")
  set(target kestrin_${name})
  add_library(${target} STATIC ${arg_SOURCES})
  add_library(kestrin::${name} ALIAS ${target})
  target_include_directories(${target} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/include")
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC_DEPS} PRIVATE ${arg_PRIVATE_DEPS} kestrin::warnings)

  if(NOT arg_HEADER_DIR)
    set(arg_HEADER_DIR ${name})
  endif()
  set(header_dir "${CMAKE_CURRENT_SOURCE_DIR}/include/kestrin/${arg_HEADER_DIR}")
  if(arg_HEADERS)
    list(TRANSFORM arg_HEADERS PREPEND "${header_dir}/" OUTPUT_VARIABLE headers)
  else()
    file(GLOB headers CONFIGURE_DEPENDS "${header_dir}/*.hpp")
  endif()
  set(checks)
  foreach(header IN LISTS headers)
    get_filename_component(stem "${header}" NAME_WE)
    set(check "${CMAKE_CURRENT_BINARY_DIR}/header_check/${stem}.cpp")
    file(CONFIGURE OUTPUT "${check}" CONTENT "#include <kestrin/${arg_HEADER_DIR}/${stem}.hpp>\n")
    list(APPEND checks "${check}")
  endforeach()
  if(checks)
    add_library(${target}_header_check OBJECT ${checks})
    target_link_libraries(${target}_header_check PRIVATE ${target} kestrin::warnings)
  endif()
endfunction()

# kestrin_add_test(<name> SOURCES <src>... [LIBS <target>...] [DEFINITIONS <def>...]
#                  [PROPERTIES <property> <value>...])
#
# Makes the GoogleTest binary <name>_tests and registers each of its tests with CTest, with the
# given compile definitions and extra test properties.
function(kestrin_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBS;DEFINITIONS;PROPERTIES")
  set(target ${name}_tests)
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LIBS} GTest::gtest GTest::gmock GTest::gtest_main
                                          kestrin::warnings)
  target_compile_definitions(${target} PRIVATE ${arg_DEFINITIONS})
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST
                       PROPERTIES ENVIRONMENT "KESTRIN_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
                                  ${arg_PROPERTIES})
endfunction()
