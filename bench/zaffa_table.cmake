# zaffa_table_bench compares the table with LMDB (Debian's liblmdb). Without
# LMDB that one benchmark is left out.
if(TARGET zaffa_table_bench)
  find_library(LMDB_LIBRARY lmdb)
  if(LMDB_LIBRARY)
    target_link_libraries(zaffa_table_bench PRIVATE ${LMDB_LIBRARY})
  else()
    message(WARNING "LMDB not found: zaffa_table_bench is not built (install liblmdb-dev)")
    set_target_properties(zaffa_table_bench PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
endif()
