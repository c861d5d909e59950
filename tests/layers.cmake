# Each layer compiles with its own include directories only: its headers and
# those below it are found, an include of a layer above is refused by the
# compiler. One test per layer, run on the include directories the build
# itself gives the layer's target.
function(ulonat_layer_test layer own)
  string(REPLACE ";" "|" forbidden "${ARGN}")
  add_test(NAME layers.${layer}
           COMMAND ${CMAKE_COMMAND} -DCXX=${CMAKE_CXX_COMPILER}
                   "-DINCS=$<JOIN:$<TARGET_PROPERTY:${layer},INCLUDE_DIRECTORIES>,|>"
                   -DWORK=${CMAKE_CURRENT_BINARY_DIR}/layer-probe/${layer}
                   -DOWN=${own} -DFORBIDDEN=${forbidden}
                   -P ${PROJECT_SOURCE_DIR}/cmake/LayerProbe.cmake)
endfunction()

ulonat_layer_test(UloNatFramework framework/UloNextHopMap.h
  Zaffa/ZaffaMap.h VorZaffa/VorZaffaMap.h UloNat/UloNatAsyncTypes.h sim/SimNatHelper.h)
ulonat_layer_test(UloNatZaffa Zaffa/platform/Jolt.h
  VorZaffa/VorZaffaMap.h UloNat/UloNatAsyncTypes.h UloNat/UloNatHwShadowTable.h)
ulonat_layer_test(UloNatVorZaffa VorZaffa/VorZaffaMap.h
  UloNat/UloNatAsyncEntities.h sim/SimNatHelper.h)
ulonat_layer_test(UloNatCore UloNat/UloNatSm.h
  sim/SimNatHelper.h tools/ulonat-sim/Scenario.h)
if(TARGET UloNatSim)
  ulonat_layer_test(UloNatSim sim/SimNatHelper.h tools/ulonat-sim/Scenario.h)
endif()
