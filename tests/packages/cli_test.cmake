# Runs `tarnlift packages` on a folder made by tarnlift-mkpkg and compares
# its standard output. Variables: CLI, MKPKG, EMULATOR (may be empty), WORK.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/pk")
set(pk "${WORK}/pk")

function(mk)
  execute_process(COMMAND ${EMULATOR} "${MKPKG}" ${ARGN} RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "tarnlift-mkpkg ${ARGN} failed (${rc}): ${err}")
  endif()
endfunction()

function(run_cli out_var rc_var err_var)
  execute_process(COMMAND ${EMULATOR} "${CLI}" packages ${ARGN}
                  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  string(REPLACE "\r" "" out "${out}")
  string(REPLACE "\r" "" err "${err}")
  set(${out_var} "${out}" PARENT_SCOPE)
  set(${rc_var} "${rc}" PARENT_SCOPE)
  set(${err_var} "${err}" PARENT_SCOPE)
endfunction()

function(expect_equal what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what}: expected\n[${expected}]\ngot\n[${actual}]")
  endif()
endfunction()

mk("${pk}/system-6.41.npk" --package system 6.41 --arch mipsel --description "Main package" --data 100000)
mk("${pk}/ppp-6.41.npk" --package ppp 6.41 --arch mipsel --depends system:6.41:6.41 --data 1000)
mk("${pk}/wireless-6.40.npk" --package wireless 6.40 --depends system:6.40)
mk("${pk}/wireless-6.41.npk" --package wireless 6.41 --depends system:6.41 --excludes wlan2)
mk("${pk}/wlan2-6.41.npk" --package wlan2 6.41 --depends system)
mk("${pk}/bundle-6.41.npk" --group bundle 6.41 --package system 6.41 --package ppp 6.41 --depends nothing)
mk("${pk}/lost-1.0.dpk" --package lost 1.0 --depends gone,missing2)
mk("${pk}/new-7.0.dpk" --package system 7.0 --arch arm --description "line one\nline two")

set(t "\t")
set(rows
"bundle-6.41.npk${t}bundle${t}6.41${t}${t}bundle-6.41.npk${t}2
lost-1.0.dpk${t}lost${t}1.0${t}${t}Missing: gone, missing2${t}3
new-7.0.dpk${t}brisvane${t}7.0${t}arm${t}line one line two${t}2
ppp-6.41.npk${t}ppp${t}6.41${t}mipsle${t}ppp-6.41.npk${t}2
system-6.41.npk${t}system${t}6.41${t}mipsle${t}Main package${t}2
wireless-6.40.npk${t}wireless${t}6.40${t}${t}wireless-6.40.npk${t}2
wireless-6.41.npk${t}wireless${t}6.41${t}${t}wireless-6.41.npk${t}2
wlan2-6.41.npk${t}wlan2${t}6.41${t}${t}wlan2-6.41.npk${t}2
")

# No ticks: the rows only.
run_cli(out rc err "${pk}")
expect_equal("exit code" "${rc}" "0")
expect_equal("plain listing" "${out}" "${rows}")
if(NOT err MATCHES "Looking for packages in " OR NOT err MATCHES "Loaded 8 package\\(s\\)")
  message(FATAL_ERROR "log lines missing on standard error:\n${err}")
endif()

# Ticks run through the selection logic: ppp pulls in the later provider of system.
run_cli(out rc err --tick ppp-6.41.npk --tick wireless-6.40.npk "${pk}")
expect_equal("exit code" "${rc}" "0")
string(REPLACE "ppp-6.41.npk${t}ppp${t}6.41${t}mipsle${t}ppp-6.41.npk${t}2" "ppp-6.41.npk${t}ppp${t}6.41${t}mipsle${t}ppp-6.41.npk${t}1" expected "${rows}")
string(REPLACE "Main package${t}2" "Main package${t}1" expected "${expected}")
string(REPLACE "wireless-6.40.npk${t}2" "wireless-6.40.npk${t}1" expected "${expected}")
string(APPEND expected "selected${t}ppp-6.41.npk${t}system-6.41.npk${t}wireless-6.40.npk\n")
string(APPEND expected "order${t}system-6.41.npk${t}ppp-6.41.npk${t}wireless-6.40.npk\n")
expect_equal("ticked listing" "${out}" "${expected}")
if(NOT err MATCHES "select ppp 1" OR NOT err MATCHES "add con for ")
  message(FATAL_ERROR "selection log lines missing:\n${err}")
endif()

# Architecture filter: code 6 (arm) keeps the arm file and those without an architecture.
run_cli(out rc err --arch 6 --tick new-7.0.dpk "${pk}")
expect_equal("exit code" "${rc}" "0")
if(NOT out MATCHES "new-7.0.dpk${t}brisvane${t}7.0${t}arm${t}[^\n]*${t}1\n" OR out MATCHES "ppp-6.41.npk")
  message(FATAL_ERROR "architecture filter:\n${out}")
endif()
if(NOT out MATCHES "selected${t}new-7.0.dpk\norder${t}new-7.0.dpk\n")
  message(FATAL_ERROR "selection with --arch 6:\n${out}")
endif()

# A tick on a row with missing dependencies is ignored, as a click would be;
# a second tick on the same file clears it again (what it pulled in stays).
run_cli(out rc err --tick lost-1.0.dpk --tick wlan2-6.41.npk --tick wlan2-6.41.npk "${pk}")
expect_equal("exit code" "${rc}" "0")
string(REPLACE "Main package${t}2" "Main package${t}1" expected "${rows}")
expect_equal("ignored tick" "${out}" "${expected}selected${t}system-6.41.npk\norder${t}system-6.41.npk\n")
if(NOT err MATCHES "cannot tick lost-1.0.dpk: Missing: gone, missing2")
  message(FATAL_ERROR "ignored tick not logged:\n${err}")
endif()

# A folder that does not exist: one line on standard error, exit code 2.
run_cli(out rc err "${WORK}/no-such-folder")
expect_equal("missing folder exit code" "${rc}" "2")
expect_equal("missing folder output" "${out}" "")
if(NOT err MATCHES "(^|\n)tarnlift: cannot read package folder '[^\n]*no-such-folder'\n")
  message(FATAL_ERROR "missing folder message: [${err}]")
endif()
# Natively the message is the only output (Wine may add its own lines).
if(NOT EMULATOR AND NOT err MATCHES "^tarnlift: [^\n]*\n$")
  message(FATAL_ERROR "more than one line on standard error: [${err}]")
endif()

# Usage errors.
run_cli(out rc err)
expect_equal("no folder exit code" "${rc}" "2")
run_cli(out rc err --tick absent.npk "${pk}")
expect_equal("unknown tick exit code" "${rc}" "2")

# --json: the same rows, selection and order as one JSON document.
run_cli(out rc err --json --tick ppp-6.41.npk --tick wireless-6.40.npk "${pk}")
expect_equal("json exit code" "${rc}" "0")
string(JSON count LENGTH "${out}" packages)
expect_equal("json rows" "${count}" "8")
string(JSON file GET "${out}" packages 4 file)
string(JSON description GET "${out}" packages 4 description)
string(JSON checked GET "${out}" packages 4 checked)
string(JSON state GET "${out}" packages 4 state)
expect_equal("json row 4" "${file}|${description}|${checked}|${state}" "system-6.41.npk|Main package|ON|1")
string(JSON unchecked GET "${out}" packages 0 checked)
expect_equal("json row 0 checked" "${unchecked}" "OFF")
string(JSON selected GET "${out}" selected)
expect_equal("json selected" "${selected}" "[ \"ppp-6.41.npk\", \"system-6.41.npk\", \"wireless-6.40.npk\" ]")
string(JSON order GET "${out}" order)
expect_equal("json order" "${order}" "[ \"system-6.41.npk\", \"ppp-6.41.npk\", \"wireless-6.40.npk\" ]")
# Without ticks there is no selection to report.
run_cli(out rc err --json "${pk}")
string(JSON selected ERROR_VARIABLE missing GET "${out}" selected)
if(NOT missing)
  message(FATAL_ERROR "json without ticks has a selection: ${out}")
endif()

# --option=value reads as --option value; --quiet leaves only the results.
run_cli(out rc err --arch=6 --tick=new-7.0.dpk --quiet "${pk}")
expect_equal("equals form exit code" "${rc}" "0")
if(NOT out MATCHES "selected${t}new-7.0.dpk\n")
  message(FATAL_ERROR "--arch=6 --tick=new-7.0.dpk:\n${out}")
endif()
if(NOT EMULATOR AND NOT err STREQUAL "")
  message(FATAL_ERROR "--quiet still logged: [${err}]")
endif()
# --verbose puts the seconds since start in front of each log line.
run_cli(out rc err --verbose "${pk}")
if(NOT err MATCHES "\\[ *[0-9]+\\.[0-9][0-9][0-9]\\] Loaded 8 package\\(s\\)")
  message(FATAL_ERROR "--verbose log lines: [${err}]")
endif()
# "--" ends the options: a folder named like an option is still a folder.
file(MAKE_DIRECTORY "${WORK}/-dashed")
execute_process(COMMAND ${CMAKE_COMMAND} -E copy "${pk}/wlan2-6.41.npk" "${WORK}/-dashed/")
execute_process(COMMAND ${EMULATOR} "${CLI}" packages -- -dashed WORKING_DIRECTORY "${WORK}"
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
expect_equal("-- exit code" "${rc}" "0")
if(NOT out MATCHES "^wlan2-6.41.npk${t}")
  message(FATAL_ERROR "packages -- -dashed:\n${out}\n${err}")
endif()
# An unknown option: exit 2 with the nearest one named.
run_cli(out rc err --tikc ppp-6.41.npk "${pk}")
expect_equal("unknown option exit code" "${rc}" "2")
if(NOT err MATCHES "unknown option '--tikc' \\(did you mean --tick\\?\\)" OR NOT err MATCHES "usage: tarnlift packages")
  message(FATAL_ERROR "unknown option message: [${err}]")
endif()
