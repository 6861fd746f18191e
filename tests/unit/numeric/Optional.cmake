# Included by tests/CMakeLists.txt: LAPACK and cminpack comparisons in the numeric tests.
include(${CMAKE_CURRENT_LIST_DIR}/OptionalLibraries.cmake)
zeltrim_link_optional_numerics(unit_tests)
