# Code generated from the service definitions: a library of its own, with SYSTEM includes, so that
# warnings and analysis stay with what people wrote.

find_program(THRIFT_COMPILER thrift REQUIRED)

# vok_thrift(TARGET IDL SERVICES...): IDL (below rpc/) as the OBJECT library TARGET.
function(vok_thrift target idl)
  get_filename_component(base ${idl} NAME_WE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/gen-cpp)
  set(sources ${out}/${base}_types.cpp)
  foreach(service ${ARGN})
    list(APPEND sources ${out}/${service}.cpp)
  endforeach()
  add_custom_command(
    OUTPUT ${sources}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${THRIFT_COMPILER} --gen cpp:no_skeleton -out ${out} ${CMAKE_CURRENT_SOURCE_DIR}/${idl}
    DEPENDS ${idl}
    VERBATIM)
  add_library(${target} OBJECT ${sources})
  target_include_directories(${target} SYSTEM PUBLIC ${out})
  target_link_libraries(${target} PUBLIC PkgConfig::Thrift)
endfunction()
