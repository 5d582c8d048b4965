# Pure policy of the location monitor and offer delivery: distance, ladder, nearest-set selection,
# message and record formats.
tovrel_add_test(tovrel_targeting_tests
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/targeting_policy_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/targeting_nearest_test.cpp
  LIBS tovrel_test_support)
