# libveskrt.so. Each folder of the library adds its sources to this target with vesk_sources().

set(VESK_LIBRARY_OPTIONS
    -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -fvisibility=hidden -fvisibility-inlines-hidden -fno-semantic-interposition)
if(VESK_SANITIZE MATCHES undefined)
  list(APPEND VESK_LIBRARY_OPTIONS -fno-sanitize=vptr)  # that check needs the type information we leave out
endif()

add_library(veskrt SHARED)
set_target_properties(veskrt PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  POSITION_INDEPENDENT_CODE ON
  LINKER_LANGUAGE C  # the C driver: no C++ runtime among the needed libraries
  LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/veskrt.map)
target_compile_options(veskrt PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${VESK_LIBRARY_OPTIONS}>)
target_include_directories(veskrt
  PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE ${CMAKE_SOURCE_DIR})
target_link_options(veskrt PRIVATE
  -Wl,-Bsymbolic-functions -Wl,--as-needed -Wl,-z,relro -Wl,-z,now
  -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/veskrt.map)
if(NOT VESK_SANITIZE)
  target_link_options(veskrt PRIVATE -Wl,-z,defs)
endif()

# vesk_sources(FILE...): adds sources of the calling folder to the library.
function(vesk_sources)
  foreach(file IN LISTS ARGN)
    target_sources(veskrt PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  endforeach()
endfunction()
