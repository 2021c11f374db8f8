# Logger interface, formatter, console, combined and file loggers.
list(APPEND PALOMIR_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/logging.cpp
  ${CMAKE_CURRENT_LIST_DIR}/file_logger.cpp
  ${CMAKE_CURRENT_LIST_DIR}/log_files.cpp
)
