# Shared settings of every target of the project.

include(GNUInstallDirs)

function(quaril_set_warnings target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(QUARIL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(QUARIL_SANITIZE)
    target_compile_options(${target} PUBLIC -fsanitize=${QUARIL_SANITIZE} -fno-omit-frame-pointer
                                            -fno-sanitize-recover=all)
    target_link_options(${target} PUBLIC -fsanitize=${QUARIL_SANITIZE})
  endif()
endfunction()

# quaril_add_library(<target> DEPENDS <libs...>)
# Builds every .cpp of the calling folder into one shared library whose include
# root is the repository root, so that "#include \"<folder>/X.hpp\"" works for
# consumers that only link the target.
function(quaril_add_library target)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp
       ${CMAKE_CURRENT_SOURCE_DIR}/detail/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.hpp)
  add_library(${target} SHARED ${sources} ${headers})
  add_library(quaril::${target} ALIAS ${target})
  # Quaril::<name> both from the source tree and from the installed package.
  string(REGEX REPLACE "^quaril_" "" exported ${target})
  add_library(Quaril::${exported} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${exported})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS})
  quaril_set_warnings(${target})
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  set_property(GLOBAL APPEND PROPERTY QUARIL_PUBLIC_HEADERS ${headers})
  set_property(GLOBAL APPEND PROPERTY QUARIL_LIBRARIES ${target})
endfunction()

# quaril_add_test_folder(<folder> LIBS <libs...>)
# One GoogleTest binary per tested folder, from tests/<folder>/*.cpp.
function(quaril_add_test_folder folder)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  set(target test_${folder})
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  quaril_set_warnings(${target})
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS ${folder})
endfunction()

# quaril_find_python(<variable> MODULES <modules...>)
# Sets <variable> to a Python interpreter that imports every module: the
# system interpreter first (Debian's packages belong to it), then the first
# python3 on the PATH. Empty when none does.
function(quaril_find_python variable)
  cmake_parse_arguments(ARG "" "" "MODULES" ${ARGN})
  list(JOIN ARG_MODULES ", " imports)
  find_program(path_python NAMES python3)
  # QUARIL_PYTHON_EXECUTABLE first: the interpreter `pip install .` runs in.
  foreach(candidate ${QUARIL_PYTHON_EXECUTABLE} /usr/bin/python3 ${path_python})
    if(EXISTS ${candidate})
      execute_process(COMMAND ${candidate} -c "import ${imports}" RESULT_VARIABLE failed
                      OUTPUT_QUIET ERROR_QUIET)
      if(NOT failed)
        set(${variable} ${candidate} PARENT_SCOPE)
        return()
      endif()
    endif()
  endforeach()
  set(${variable} "" PARENT_SCOPE)
endfunction()

# quaril_install()
# Installs the libraries, their public headers (under include/<folder>/),
# bundle-tool, and a CMake package: find_package(Quaril) gives Quaril::ostrak,
# Quaril::field, Quaril::grid, Quaril::bundle, Quaril::hdf5 and Quaril::tools.
function(quaril_install)
  include(CMakePackageConfigHelpers)
  get_property(libraries GLOBAL PROPERTY QUARIL_LIBRARIES)
  get_property(headers GLOBAL PROPERTY QUARIL_PUBLIC_HEADERS)
  set(programs)
  if(TARGET bundle-tool)
    set(programs bundle-tool)
  endif()
  # Installed programs and libraries find the libraries beside them.
  set_target_properties(${libraries} ${programs} PROPERTIES
                        INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${libraries} ${programs} EXPORT QuarilTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  foreach(header ${headers})
    file(RELATIVE_PATH relative ${PROJECT_SOURCE_DIR} ${header})
    get_filename_component(folder ${relative} DIRECTORY)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
  endforeach()
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Quaril)
  install(EXPORT QuarilTargets NAMESPACE Quaril:: DESTINATION ${package_dir})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuarilConfig.cmake.in
                                ${PROJECT_BINARY_DIR}/QuarilConfig.cmake
                                INSTALL_DESTINATION ${package_dir})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuarilConfigVersion.cmake
                                   VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/QuarilConfig.cmake
                ${PROJECT_BINARY_DIR}/QuarilConfigVersion.cmake
          DESTINATION ${package_dir})
endfunction()
