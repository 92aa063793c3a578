# kavrel_add_shared_library(NAME SOURCES ... EXPORT_LISTS ...)
#
# A shared library built from the library's objects plus SOURCES that exports
# exactly the names of the EXPORT_LISTS files (one name a line, # comments):
# a version script on ELF platforms, a module-definition file on Windows.
# Everything else stays hidden, C++ runtime symbols included.

# How library code compiles the header's export macro. On ELF the listed
# functions get default visibility and the version script narrows the
# library's symbols to them. On Windows the module-definition file alone names
# the DLL's exports: dllexport in the shared objects would also make every
# program that links the static core export the whole interface.
if(WIN32)
  set(KAVREL_LIBRARY_CODE_DEFINITION KAVREL_DIRECT_STATIC)
else()
  set(KAVREL_LIBRARY_CODE_DEFINITION KAVREL_DIRECT_BUILDING)
endif()

function(kavrel_read_export_lists out_var)
  set(names "")
  foreach(list_file IN LISTS ARGN)
    file(STRINGS ${list_file} lines REGEX "^[A-Za-z_]")
    list(APPEND names ${lines})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list_file})
  endforeach()
  list(REMOVE_DUPLICATES names)
  set(${out_var} ${names} PARENT_SCOPE)
endfunction()

# Rewrites file only when its content changes, so that running CMake again
# does not relink everything that depends on it.
function(kavrel_write_if_changed file content)
  file(WRITE ${file}.new "${content}")
  configure_file(${file}.new ${file} COPYONLY)
  file(REMOVE ${file}.new)
endfunction()

function(kavrel_add_shared_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;EXPORT_LISTS" ${ARGN})
  kavrel_read_export_lists(names ${ARG_EXPORT_LISTS})
  add_library(${name} SHARED $<TARGET_OBJECTS:kavrel_direct_objects> ${ARG_SOURCES})
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_compile_definitions(${name} PRIVATE ${KAVREL_LIBRARY_CODE_DEFINITION})
  target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
  if(WIN32)
    # The import library comes with the DLL: lib<name>.dll.a from mingw-w64,
    # <name>.lib from MSVC.
    set(def_file ${CMAKE_CURRENT_BINARY_DIR}/${name}.def)
    list(JOIN names "\n  " body)
    kavrel_write_if_changed(${def_file} "EXPORTS\n  ${body}\n")
    target_sources(${name} PRIVATE ${def_file})
    set_target_properties(${name} PROPERTIES PREFIX "")
    if(MINGW)
      # Only Windows' own DLLs at run time: libgcc, libstdc++ and winpthreads
      # (under the posix-thread runtime's mutexes) are linked in. The
      # -static-libgcc and -static-libstdc++ options alone would still import
      # libwinpthread-1.dll.
      target_link_options(${name} PRIVATE -static)
    endif()
  else()
    find_package(Threads REQUIRED)
    target_link_libraries(${name} PRIVATE Threads::Threads)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
    list(JOIN names ";\n    " body)
    kavrel_write_if_changed(${script} "{\n  global:\n    ${body};\n  local:\n    *;\n};\n")
    target_link_options(${name} PRIVATE -Wl,--version-script=${script} -Wl,--no-undefined)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${script})
  endif()
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
