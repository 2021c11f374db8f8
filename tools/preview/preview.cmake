add_executable(palomir-preview ${CMAKE_CURRENT_LIST_DIR}/main.cpp)
target_link_libraries(palomir-preview PRIVATE palomir_qt_render)
palomir_warnings(palomir-preview)
