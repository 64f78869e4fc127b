# Checks libkivo.so's dynamic symbols (cmake -DNM= -DLIB= -DROOT= -P exports.cmake):
# - the defined ones are exactly the functions and tables that include/*.h
#   declares with KIVO_API or XELO_API, plus the internal operations below,
#   each of which its folder's header must declare with KIVO_API;
# - nothing is imported from the C++ runtime (no throw, no libstdc++ call, no
#   throwing operator new), so no exception can start inside the library.
cmake_minimum_required(VERSION 3.21)

# Handle procedures, the reader's end-of-image check and the size category:
# exported by name although their records are internal.
set(internal_exports
  kivo_category kivod_chk_eoi
  kivod_set_ppi kivod_platform_init kivod_platform_deinit kivod_ready kivod_flush kivod_prepare
  kivoe_set_ppi kivoe_platform_init kivoe_platform_deinit kivoe_ready kivoe_flush
  kivot_set_ppi kivot_platform_init kivot_platform_deinit kivot_ready kivot_flush)

# Names declared with an export macro in the given headers.
function(declared_exports out)
  set(names "")
  foreach(header ${ARGN})
    file(READ ${header} text)
    string(REPLACE ";" "\n" text "${text}")
    string(REGEX REPLACE "\n#[^\n]*" "" text "${text}")
    string(REGEX MATCHALL "(KIVO|XELO)_API[^\n(\[]*" decls "${text}")
    foreach(decl ${decls})
      string(REGEX MATCH "[A-Za-z_][A-Za-z0-9_]*[ ]*$" name "${decl}")
      string(STRIP "${name}" name)
      list(APPEND names ${name})
    endforeach()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

file(GLOB public_headers ${ROOT}/include/*.h)
declared_exports(expected ${public_headers})
file(GLOB internal_headers ${ROOT}/common/*.h ${ROOT}/decoder/*.h ${ROOT}/encoder/*.h ${ROOT}/transcoder/*.h)
declared_exports(internal_declared ${internal_headers})
foreach(name ${internal_exports})
  if(NOT name IN_LIST internal_declared)
    message(SEND_ERROR "${name} is listed as exported but no internal header declares it KIVO_API")
  endif()
endforeach()
list(APPEND expected ${internal_exports})
list(REMOVE_DUPLICATES expected)
list(SORT expected)

execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE defined RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REGEX MATCHALL "[^ \n]+\n" exported "${defined}")
string(REPLACE "\n" "" exported "${exported}")
list(FILTER exported EXCLUDE REGEX "^__odr_asan[.]")  # AddressSanitizer's marks of exported data
list(SORT exported)

set(extra ${exported})
list(REMOVE_ITEM extra ${expected})
set(missing ${expected})
list(REMOVE_ITEM missing ${exported})
if(extra)
  message(SEND_ERROR "exported without a header declaration: ${extra}")
endif()
if(missing)
  message(SEND_ERROR "declared for export but not exported: ${missing}")
endif()

execute_process(COMMAND ${NM} -D --undefined-only ${LIB} OUTPUT_VARIABLE imports)
string(REGEX MATCHALL "[ \t](_Z|__cxa_throw|__cxa_rethrow|__cxa_allocate_exception|_Unwind_RaiseException)[^ \n]*"
       throwing "${imports}")
if(throwing)
  message(SEND_ERROR "imports from the C++ runtime: ${throwing}")
endif()
