# zaffa_reader_bench compares the table's readers with a boost::interprocess
# map (header-only; shared memory objects need librt and threads).
if(TARGET zaffa_reader_bench)
  target_link_libraries(zaffa_reader_bench PRIVATE rt Threads::Threads)
endif()
