# Fails when a library source writes a trace record other than by naming a
# point of the trace point table: the number-taking macros, the trace
# service's calls or ids, or a point made outside the table.  Only
# pmdb_trace.h, which turns a point into a record, may use them.
#
#   cmake -DSRC_DIR=<library sources> -P <this>
file(GLOB sources ${SRC_DIR}/*.cpp ${SRC_DIR}/*.h)
set(patterns
  "PMDB_S?TRACE_[EDV] *\\("
  "PMDB_TRACE *\\( *[0-9]"
  "[^a-z_]_s?vesk(_[1-7])? *\\("
  "VESK_S?ID *\\("
  "from_table"
  "pmdb_trace::detail")
set(found "")
foreach(source IN LISTS sources)
  get_filename_component(name ${source} NAME)
  if(name STREQUAL "pmdb_trace.h")
    continue()
  endif()
  file(STRINGS ${source} lines)
  set(line_no 0)
  foreach(line IN LISTS lines)
    math(EXPR line_no "${line_no} + 1")
    foreach(pattern IN LISTS patterns)
      if(line MATCHES "${pattern}")
        string(APPEND found "\n  ${name}:${line_no}: ${line}")
      endif()
    endforeach()
  endforeach()
endforeach()
list(LENGTH sources count)
if(count LESS 5)
  message(FATAL_ERROR "only ${count} library sources found under ${SRC_DIR}")
endif()
if(found)
  message(FATAL_ERROR "trace records written other than by a point of the table:${found}")
endif()
message(STATUS "${count} library sources write traces only by the table's points")
