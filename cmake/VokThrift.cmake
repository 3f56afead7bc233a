# Code generated from the service definitions: a library of its own, with SYSTEM includes, so that
# warnings and analysis stay with what people wrote.

find_program(THRIFT_COMPILER thrift REQUIRED)

# vok_thrift(TARGET IDL [TEMPLATES] SERVICES...): IDL (below rpc/) as the OBJECT library TARGET. With
# TEMPLATES, who names the protocol's class reads and writes without a virtual call for each field.
function(vok_thrift target idl)
  cmake_parse_arguments(PARSE_ARGV 2 arg TEMPLATES "" "")
  set(language cpp:no_skeleton)
  if(arg_TEMPLATES)
    string(APPEND language ",templates")
  endif()
  get_filename_component(base ${idl} NAME_WE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/gen-cpp)
  set(sources ${out}/${base}_types.cpp)
  foreach(service ${arg_UNPARSED_ARGUMENTS})
    list(APPEND sources ${out}/${service}.cpp)
  endforeach()
  add_custom_command(
    OUTPUT ${sources}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${THRIFT_COMPILER} --gen ${language} -out ${out} ${CMAKE_CURRENT_SOURCE_DIR}/${idl}
    DEPENDS ${idl}
    VERBATIM)
  add_library(${target} OBJECT ${sources})
  target_include_directories(${target} SYSTEM PUBLIC ${out})
  target_link_libraries(${target} PUBLIC PkgConfig::Thrift)
endfunction()
