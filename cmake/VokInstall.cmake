# What `cmake --install` puts where, in four components: broker (what a set runs), library (for host
# processes), dev (to build against both), examples.
#
# Nothing that is installed knows where this tree was, and what names its own place learns it when it
# is installed: `cmake --install --prefix` is obeyed in every file.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(vok_packaging ${PROJECT_SOURCE_DIR}/packaging)
set(vok_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vokbroker)
set(vok_idl_dir ${CMAKE_INSTALL_DATADIR}/vokbroker)
set(vok_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/vokbroker)
set(vok_libexec_dir ${CMAKE_INSTALL_LIBEXECDIR}/vok-broker)
set(vok_doc_dir ${CMAKE_INSTALL_DOCDIR})
set(vok_dev_doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/libvokbroker-dev)
set(vok_example_dir ${CMAKE_INSTALL_DOCDIR}-examples/examples)

set(VOK_ZSH_COMPLETION_DIR "" CACHE STRING
    "Where zsh finds completions; empty: where it looks on this system")

# vok_read_constant(OUT HEADER NAME): what the code gives NAME, without quotes.
function(vok_read_constant out header name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  file(STRINGS ${PROJECT_SOURCE_DIR}/${header} line REGEX "[ ]${name}(\\[\\])? = ")
  # A list has its semicolons quoted by a backslash.
  if(NOT line MATCHES " = \"?([^\";\\]+)")
    message(FATAL_ERROR "${header} does not say what ${name} is.")
  endif()
  set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()

# As /proc/net/tcp writes it.
vok_read_constant(vok_port platform/Limits.h kBrokerPort)
math(EXPR vok_port_in_hex ${vok_port} OUTPUT_FORMAT HEXADECIMAL)
string(REPLACE 0x "" vok_port_in_hex ${vok_port_in_hex})
string(TOUPPER ${vok_port_in_hex} vok_port_in_hex)
vok_read_constant(vok_ready_flag platform/EmpPaths.h kReadyFlag)

# vok_install_configured(IN OUT DIR COMPONENT PERMISSIONS...): IN with the @VARIABLES@ bindir and
# libexecdir as they are at the install, and with the port and the ready flag of the code.
function(vok_install_configured in out dir component)
  set(made ${PROJECT_BINARY_DIR}/installed/${out})
  install(CODE "
    set(port_in_hex ${vok_port_in_hex})
    set(ready_flag ${vok_ready_flag})
    set(bindir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(libexecdir \"\${CMAKE_INSTALL_PREFIX}/${vok_libexec_dir}\")
    configure_file(\"${vok_packaging}/${in}\" \"${made}\" @ONLY)"
    COMPONENT ${component})
  install(PROGRAMS ${made} DESTINATION ${dir} COMPONENT ${component} PERMISSIONS ${ARGN})
endfunction()
set(vok_file_mode OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(vok_program_mode ${vok_file_mode} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)

# vok_install_guide(NAME DIR COMPONENT): docs/NAME, whose links lead to where things are installed,
# those of other components, too.
function(vok_install_guide name dir component)
  set(source ${PROJECT_SOURCE_DIR}/docs/${name})
  set(made ${PROJECT_BINARY_DIR}/installed/${name})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  foreach(other ${vok_doc_dir}/INTEGRATION.md ${vok_doc_dir}/VOKCTL.md
                ${vok_dev_doc_dir}/WRITING_AN_EMP.md ${vok_dev_doc_dir}/WRITING_A_LAUNCHER.md)
    get_filename_component(other_name ${other} NAME)
    file(RELATIVE_PATH link /${dir} /${other})
    string(REPLACE "](${other_name}" "](${link}" text "${text}")
  endforeach()
  file(RELATIVE_PATH to_idl /${dir} /${vok_idl_dir})
  file(RELATIVE_PATH to_examples /${dir} /${vok_example_dir})
  string(REPLACE "](../rpc/" "](${to_idl}/" text "${text}")
  string(REPLACE "](../examples/" "](${to_examples}/" text "${text}")
  # Of what is not installed, the name is left.
  string(REGEX REPLACE "\\[([^]]+)\\]\\(PERFORMANCE[^)]*\\)" "\\1" text "${text}")
  file(WRITE ${made} "${text}")
  install(FILES ${made} DESTINATION ${dir} COMPONENT ${component})
endfunction()

function(vok_install_broker)
  install(TARGETS vok-broker RUNTIME COMPONENT broker)
  install(PROGRAMS ${vok_packaging}/launch ${vok_packaging}/end-stray
          DESTINATION ${vok_libexec_dir} COMPONENT broker)
  install(FILES ${vok_packaging}/find-daemon DESTINATION ${vok_libexec_dir} COMPONENT broker)
  vok_install_configured(await-ready.in await-ready ${vok_libexec_dir} broker ${vok_program_mode})
  vok_install_configured(vok-broker.service.in vok-broker.service lib/systemd/system broker
                         ${vok_file_mode})
  install(FILES ${vok_packaging}/vok-broker.tmpfiles DESTINATION lib/tmpfiles.d
          RENAME vok-broker.conf COMPONENT broker)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/vok-broker.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
          COMPONENT broker)
  vok_install_guide(INTEGRATION.md ${vok_doc_dir} broker)
  # The broker looks there whatever the prefix is, so the folder is for /usr only.
  install(CODE "
    if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
      file(MAKE_DIRECTORY \"\$ENV{DESTDIR}/usr/bin/emps\")
    endif()"
    COMPONENT broker)
endfunction()

function(vok_install_vokctl)
  install(TARGETS vokctl RUNTIME COMPONENT broker)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/vokctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
          COMPONENT broker)
  vok_install_guide(VOKCTL.md ${vok_doc_dir} broker)
  install(FILES ${PROJECT_SOURCE_DIR}/ctl/completion/vokctl.bash RENAME vokctl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT broker)
  # Below /usr, Debian's zsh looks into a folder of its own.
  install(CODE "
    set(vok_zsh_dir \"${VOK_ZSH_COMPLETION_DIR}\")
    if(vok_zsh_dir STREQUAL \"\")
      set(vok_zsh_dir ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
      if(EXISTS /etc/debian_version AND CMAKE_INSTALL_PREFIX STREQUAL /usr)
        set(vok_zsh_dir ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
      endif()
    endif()"
    COMPONENT broker)
  install(FILES ${PROJECT_SOURCE_DIR}/ctl/completion/_vokctl DESTINATION "\${vok_zsh_dir}"
          COMPONENT broker)
endfunction()

# vok_collect_headers(OUT HEADER): adds HEADER, and what it includes of ours, and so on, to OUT.
function(vok_collect_headers out header)
  set(found ${${out}})
  if(NOT header IN_LIST found)
    list(APPEND found ${header})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} lines REGEX "^#include \"[a-z]+/")
    foreach(line ${lines})
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
      vok_collect_headers(found ${included})
    endforeach()
  endif()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

# What a host includes: vok.h, and CBroker.h with what that includes in turn. The code generated
# from the service definitions is not among them: whoever builds against it makes his own, with the
# Thrift that he links (vokbroker::idl).
set(vok_public_headers)
vok_collect_headers(vok_public_headers broker/vok.h)
vok_collect_headers(vok_public_headers broker/CBroker.h)

function(vok_install_library)
  target_include_directories(vokbroker INTERFACE $<INSTALL_INTERFACE:${vok_include_dir}>)
  target_compile_features(vokbroker INTERFACE cxx_std_17)
  # As the library was built: what CBroker.h says of files must mean the same on both sides.
  target_compile_definitions(vokbroker INTERFACE $<INSTALL_INTERFACE:_FILE_OFFSET_BITS=64>)
  install(TARGETS vokbroker EXPORT vokbroker
    LIBRARY COMPONENT library NAMELINK_COMPONENT dev)
  install(EXPORT vokbroker NAMESPACE vokbroker:: FILE vokbrokerTargets.cmake
          DESTINATION ${vok_config_dir} COMPONENT dev)
endfunction()

function(vok_install_dev)
  foreach(header ${vok_public_headers})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${vok_include_dir}/${folder}
            COMPONENT dev)
  endforeach()
  install(FILES ${PROJECT_SOURCE_DIR}/rpc/vok.thrift ${PROJECT_SOURCE_DIR}/rpc/vok_admin.thrift
          DESTINATION ${vok_idl_dir} COMPONENT dev)

  set(made ${PROJECT_BINARY_DIR}/installed)
  configure_package_config_file(${vok_packaging}/vokbrokerConfig.cmake.in
    ${made}/vokbrokerConfig.cmake INSTALL_DESTINATION ${vok_config_dir} PATH_VARS vok_idl_dir
    NO_SET_AND_CHECK_MACRO)
  write_basic_package_version_file(${made}/vokbrokerConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${made}/vokbrokerConfig.cmake ${made}/vokbrokerConfigVersion.cmake
          DESTINATION ${vok_config_dir} COMPONENT dev)

  # pkg-config knows where its file lies, and everything else from there.
  file(RELATIVE_PATH vok_pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" vok_pc_to_prefix ${vok_pc_to_prefix})
  configure_file(${vok_packaging}/vokbroker.pc.in ${made}/vokbroker.pc @ONLY)
  install(FILES ${made}/vokbroker.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/vok-emp.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
          COMPONENT dev)
  vok_install_guide(WRITING_AN_EMP.md ${vok_dev_doc_dir} dev)
  vok_install_guide(WRITING_A_LAUNCHER.md ${vok_dev_doc_dir} dev)
endfunction()

# To look at and copy, to run, and an EMP that is where the broker looks for it.
function(vok_install_examples)
  set(folder ${PROJECT_SOURCE_DIR}/examples)
  install(FILES ${folder}/emp.h ${folder}/emp_server.cpp ${folder}/register_launcher.cpp
                ${folder}/grouping_emp.cpp ${folder}/client.cpp ${folder}/host.cpp
                ${folder}/client.py ${folder}/admin.py
          DESTINATION ${vok_example_dir} COMPONENT examples)
  install(FILES ${vok_packaging}/examples/CMakeLists.txt DESTINATION ${vok_example_dir}
          COMPONENT examples)
  install(TARGETS example-emp example-register-launcher example-grouping-emp example-client
                  example-host
          RUNTIME DESTINATION ${vok_libexec_dir}/examples COMPONENT examples)
  install(CODE "
    if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
      file(INSTALL DESTINATION /usr/bin/emps/empExample TYPE PROGRAM RENAME empExample
           FILES \"$<TARGET_FILE:example-emp>\")
      file(INSTALL DESTINATION /usr/bin/emps/empExample TYPE FILE
           FILES \"${vok_packaging}/examples/empExample.xml\")
      if(CMAKE_INSTALL_DO_STRIP)
        execute_process(COMMAND \"${CMAKE_STRIP}\"
                        \"\$ENV{DESTDIR}/usr/bin/emps/empExample/empExample\")
      endif()
    endif()"
    COMPONENT examples)
endfunction()

vok_install_broker()
if(TARGET vokctl)
  vok_install_vokctl()
endif()
vok_install_library()
vok_install_dev()
if(TARGET example-emp)
  vok_install_examples()
endif()

# What has to be built before an install; the tests are not part of it.
add_custom_target(vok_installed DEPENDS vok-broker vokbroker $<TARGET_NAME_IF_EXISTS:vokctl>)
if(TARGET example-emp)
  add_dependencies(vok_installed example-emp example-register-launcher example-grouping-emp
                                 example-client example-host)
endif()

include(cmake/VokPackages.cmake)
