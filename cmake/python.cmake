find_package(Python 3.8 COMPONENTS Interpreter Development.Module REQUIRED)
if(NOT nanobind_DIR)
  execute_process(COMMAND "${Python_EXECUTABLE}" -m nanobind --cmake_dir
                  OUTPUT_VARIABLE nanobind_ROOT OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE _nb_rc)
  if(NOT _nb_rc EQUAL 0)
    message(FATAL_ERROR "nanobind is not installed for ${Python_EXECUTABLE}; run scripts/bootstrap")
  endif()
endif()
find_package(nanobind CONFIG REQUIRED)

# qv_add_extension(<target> <package dir, e.g. quorvex/backend/solace> SOURCES ... [LIBS ...])
# Builds one extension module, installs it into its package and, for development
# runs (QUORVEX_INPLACE), also writes it next to the package's Python sources.
function(qv_add_extension target pkgdir)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  # Every module carries the shared interpreter glue (cpp/python/common).
  nanobind_add_module(${target} NB_DOMAIN quorvex ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/cpp/python/common/glue.cpp)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cpp/python/common)
  target_link_libraries(${target} PRIVATE qv_warnings ${ARG_LIBS})
  install(TARGETS ${target} LIBRARY DESTINATION ${pkgdir})
  # libqv_bus.so is installed in the pymqlink package: one copy per process, one bus registry.
  # Every module gets the path, as some link the bus only through another library (qv_paper).
  file(RELATIVE_PATH _to_bus "/${pkgdir}" "/pymqlink")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${_to_bus}")
  if(QUORVEX_INPLACE)
    set_target_properties(${target} PROPERTIES
      LIBRARY_OUTPUT_DIRECTORY ${PROJECT_SOURCE_DIR}/python/${pkgdir})
  endif()
endfunction()
