# Writes vexo(1) with help2man: the tool's --help and --version, and a
# section holding the --help of every subcommand the tool lists, so the page
# cannot miss one. -DPROGRAM=<tool> -DHELP2MAN=<help2man> -DOUTPUT=<vexo.1>
execute_process(COMMAND ${PROGRAM} --help OUTPUT_VARIABLE help RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} --help failed")
endif()
string(REGEX REPLACE ".*\n[Ss][Uu][Bb][Cc][Oo][Mm][Mm][Aa][Nn][Dd][Ss]:\n" "" listed "${help}")
string(REGEX MATCHALL "(^|\n)  [a-z]+" commands "${listed}")

# help2man reads the include file as roff; lines of help text stay verbatim.
set(text "[COMMANDS]\nEach command has its own \\fB--help\\fR; this is what it says.\n")
foreach(c ${commands})
  string(STRIP "${c}" c)
  execute_process(COMMAND ${PROGRAM} ${c} --help OUTPUT_VARIABLE sub RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} ${c} --help failed")
  endif()
  string(REPLACE "\\" "\\e" sub "${sub}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" sub "${sub}")
  string(APPEND text ".SS ${c}\n.nf\n${sub}.fi\n")
endforeach()
list(LENGTH commands n)
if(n EQUAL 0)
  message(FATAL_ERROR "no subcommands found in the output of ${PROGRAM} --help")
endif()
file(WRITE ${OUTPUT}.include "${text}")
execute_process(COMMAND ${HELP2MAN} --no-info --section=1 --include=${OUTPUT}.include
  "--name=file names, files, processes and the environment as the vexo library sees them"
  --output=${OUTPUT} ${PROGRAM} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "help2man failed on ${PROGRAM}")
endif()
