# Independent numerical libraries used only as a second opinion in tests and
# benchmarks: LAPACKE (Debian liblapacke-dev) and cminpack (libcminpack-dev).
# Nothing here is required; a missing library only drops the comparisons.
find_path(ZELTRIM_LAPACKE_INCLUDE lapacke.h)
find_library(ZELTRIM_LAPACKE_LIB lapacke)
find_library(ZELTRIM_LAPACK_LIB lapack)
find_path(ZELTRIM_CMINPACK_INCLUDE cminpack.h PATH_SUFFIXES cminpack-1)
find_library(ZELTRIM_CMINPACK_LIB cminpack)

function(zeltrim_link_optional_numerics target)
  if(ZELTRIM_LAPACKE_INCLUDE AND ZELTRIM_LAPACKE_LIB AND ZELTRIM_LAPACK_LIB)
    target_compile_definitions(${target} PRIVATE ZELTRIM_HAVE_LAPACKE)
    target_include_directories(${target} PRIVATE ${ZELTRIM_LAPACKE_INCLUDE})
    target_link_libraries(${target} PRIVATE ${ZELTRIM_LAPACKE_LIB} ${ZELTRIM_LAPACK_LIB})
  endif()
  if(ZELTRIM_CMINPACK_INCLUDE AND ZELTRIM_CMINPACK_LIB)
    target_compile_definitions(${target} PRIVATE ZELTRIM_HAVE_CMINPACK)
    target_include_directories(${target} PRIVATE ${ZELTRIM_CMINPACK_INCLUDE})
    target_link_libraries(${target} PRIVATE ${ZELTRIM_CMINPACK_LIB})
  endif()
endfunction()
