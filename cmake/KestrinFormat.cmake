# format-check: fails when a tracked C++ file differs from what clang-format 14 makes of it.
# format: rewrites them in place.
add_custom_target(format-check
  COMMAND "${PROJECT_SOURCE_DIR}/tools/format-sources" --check
  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
  COMMENT "Checking the formatting of the C++ sources")
add_custom_target(format
  COMMAND "${PROJECT_SOURCE_DIR}/tools/format-sources"
  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
