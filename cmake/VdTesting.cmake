find_package(GTest REQUIRED)
include(GoogleTest)

# vd_add_gtest(<name> SOURCES <files...> LIBS <targets...> [ENV <VAR=value>...])
# One executable per unit; CTest lists every case by name.
function(vd_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;ENV;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} vd_test_support GTest::gtest
                        GTest::gtest_main GTest::gmock vd_warnings)
  target_include_directories(${name} PRIVATE ${VD_INCLUDE_ROOT} ${PROJECT_SOURCE_DIR}/tests)
  set(props "")
  if(ARG_ENV)
    list(APPEND props ENVIRONMENT "${ARG_ENV}")
  endif()
  if(ARG_LABELS)
    list(APPEND props LABELS "${ARG_LABELS}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${props})
endfunction()

# vd_add_sim_gtest(<name> SOURCES ... LIBS ...): a GoogleTest executable that runs
# under the driver simulator. The simulator stays inert until the test points
# KXSIM_CONFIG at a simulated file system, so pure unit cases can share it.
function(vd_add_sim_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  vd_add_gtest(${name} SOURCES ${ARG_SOURCES} LIBS ${ARG_LIBS}
               ENV "LD_PRELOAD=${KXSIM_PRELOAD}")
  target_compile_definitions(${name} PRIVATE KXSIM_CLI="${KXSIM_CLI}")
  if(TARGET kxsim AND TARGET kxsim_preload)
    add_dependencies(${name} kxsim kxsim_preload)
  endif()
endfunction()
