# Control plane of the engine: tuning, scan and table updates, MBBMS requests and the relay
# of agent events to the application.
target_sources(tavo_engine_objs PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/EngineTuning.cpp
    ${CMAKE_CURRENT_LIST_DIR}/EngineRequests.cpp
    ${CMAKE_CURRENT_LIST_DIR}/EngineEventRelay.cpp)
