# The views port's virtual backend and the screens built on it: offer view, content viewer, place
# map and settings.
tovrel_add_test(tovrel_screens_tests
  SOURCES
    views_virtual_test.cpp
    screens_offer_view_test.cpp
    screens_content_test.cpp
    screens_map_test.cpp
    screens_settings_test.cpp
  LIBS tovrel tovrel_internal tovrel_virtual tovrel_test_support)
