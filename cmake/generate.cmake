# What the build makes from the tables. The generator is a program of the build itself, so that a fresh machine needs
# nothing more; what it makes is never committed.
file(GLOB vekgen_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/gen/*.cpp ${PROJECT_SOURCE_DIR}/cmake/gen/*.h)
add_executable(vekgen ${vekgen_sources})
set_target_properties(vekgen PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/gen)

set(VEKSYS_PUBLIC_GENERATED ${CMAKE_BINARY_DIR}/generated/public)
set(VEKSYS_PRIVATE_GENERATED ${CMAKE_BINARY_DIR}/generated/private)
set(VEKSYS_MESSAGES ${CMAKE_BINARY_DIR}/share/veksys/locale/en_US/veksql.mo)
file(MAKE_DIRECTORY ${VEKSYS_PUBLIC_GENERATED}/veksys ${VEKSYS_PRIVATE_GENERATED} ${CMAKE_BINARY_DIR}/share/veksys/locale/en_US)
set(VEKSYS_GENERATED_FILES)

function(veksys_generate kind output)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE tables)
  add_custom_command(OUTPUT ${output} COMMAND vekgen ${kind} ${tables} ${output} DEPENDS vekgen ${tables}
                     COMMENT "Generating ${kind}" VERBATIM)
  set(VEKSYS_GENERATED_FILES ${VEKSYS_GENERATED_FILES} ${output} PARENT_SCOPE)
endfunction()

veksys_generate(codes-header ${VEKSYS_PUBLIC_GENERATED}/veksys/codes.h diag/tables/zrc.tsv)
veksys_generate(zrc-map ${VEKSYS_PRIVATE_GENERATED}/zrc_map.inc
                diag/tables/zrc.tsv diag/tables/sqlmap.tsv diag/tables/sqlmsg.tsv)
veksys_generate(oserr ${VEKSYS_PRIVATE_GENERATED}/oserr.inc diag/tables/oserr.tsv diag/tables/zrc.tsv)
veksys_generate(functions-header ${VEKSYS_PRIVATE_GENERATED}/veksys_functions.h platform/tables/functions.tsv)
veksys_generate(ecf-tables ${VEKSYS_PRIVATE_GENERATED}/ecf_tables.inc
                platform/tables/components.tsv platform/tables/functions.tsv)
veksys_generate(sqlstates ${VEKSYS_PRIVATE_GENERATED}/sqlstates.inc diag/tables/sqlmsg.tsv)
veksys_generate(latch-types-header ${VEKSYS_PUBLIC_GENERATED}/veksys/latch_types.h sync/tables/latch_types.tsv)
veksys_generate(latch-types ${VEKSYS_PRIVATE_GENERATED}/latch_types.inc sync/tables/latch_types.tsv)
veksys_generate(territories ${VEKSYS_PRIVATE_GENERATED}/territories.inc
                platform/tables/territories.tsv platform/tables/territory_formats.tsv)
veksys_generate(mo ${VEKSYS_MESSAGES} diag/tables/sqlmsg.tsv)
add_custom_target(veksys_generated DEPENDS ${VEKSYS_GENERATED_FILES})
