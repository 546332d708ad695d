# Compiles trace_misuse.cpp with the project's compiler and the library's
# include directories: as it is it must compile; with each MISUSE_* case
# defined it must not, and the compiler must say why (a case refused for
# another reason, such as a missing header, fails the check).
#
#   cmake -DCXX=<compiler> -DINCLUDES=<dir|dir|...> -DSOURCE=<file> -P <this>
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
string(REPLACE "|" ";" include_dirs "${INCLUDES}")
set(args -std=c++20 -fsyntax-only -Wall -Wextra -Werror ${flags})
foreach(dir IN LISTS include_dirs)
  list(APPEND args -I${dir})
endforeach()

function(compile define out_rc out_log)
  set(extra)
  if(define)
    set(extra -D${define})
  endif()
  execute_process(COMMAND ${CXX} ${args} ${extra} ${SOURCE}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 120)
  set(${out_rc} "${rc}" PARENT_SCOPE)
  set(${out_log} "${out}${err}" PARENT_SCOPE)
endfunction()

compile("" rc log)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the correct calls do not compile:\n${log}")
endif()
message(STATUS "correct calls: compiled")

# case | what the compiler must say (g++ or clang++)
set(cases
  "MISUSE_ARGUMENT_COUNT|written with its table row's argument count"
  "MISUSE_UNKNOWN_POINT|punt_remove_finished"
  "MISUSE_BARE_NUMBER|no matching function"
  "MISUSE_STRING_ARGUMENTS|a string and one number"
  "MISUSE_CYCLE_SHAPE|could not convert|no viable conversion"
  "MISUSE_CYCLE_NUMBER|could not convert|no viable conversion"
  "MISUSE_DUPLICATE_NUMBER|numbers must be unique")
set(failed 0)
foreach(entry IN LISTS cases)
  string(FIND "${entry}" "|" bar)
  string(SUBSTRING "${entry}" 0 ${bar} define)
  math(EXPR from "${bar} + 1")
  string(SUBSTRING "${entry}" ${from} -1 expected)
  compile(${define} rc log)
  if(rc EQUAL 0)
    message(SEND_ERROR "${define}: compiled, but must be refused")
    set(failed 1)
  elseif(NOT log MATCHES "${expected}")
    message(SEND_ERROR "${define}: refused, but not for the reason wanted (${expected}):\n${log}")
    set(failed 1)
  else()
    message(STATUS "${define}: refused")
  endif()
endforeach()
