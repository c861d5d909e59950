# zaffa_table_bench compares the table with LMDB (Debian's liblmdb).
if(TARGET zaffa_table_bench)
  find_library(LMDB_LIBRARY lmdb REQUIRED)
  target_link_libraries(zaffa_table_bench PRIVATE ${LMDB_LIBRARY})
endif()
