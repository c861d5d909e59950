# zaffa_reader_bench compares the table's readers with a boost::interprocess
# map (header-only; shared memory objects need librt and threads). Without
# boost's headers that one benchmark is left out.
if(TARGET zaffa_reader_bench)
  find_path(ULONAT_BOOST_INTERPROCESS boost/interprocess/managed_shared_memory.hpp)
  if(ULONAT_BOOST_INTERPROCESS)
    target_include_directories(zaffa_reader_bench PRIVATE ${ULONAT_BOOST_INTERPROCESS})
    target_link_libraries(zaffa_reader_bench PRIVATE rt Threads::Threads)
  else()
    message(WARNING "boost::interprocess not found: zaffa_reader_bench is not built (install libboost-dev)")
    set_target_properties(zaffa_reader_bench PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
endif()
