list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/errors.cpp
  ${CMAKE_CURRENT_LIST_DIR}/palomir.cpp
  ${CMAKE_CURRENT_LIST_DIR}/presentation.cpp
)
