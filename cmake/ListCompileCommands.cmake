# Prints the entries of a compile_commands.json, one a line: directory, file and command,
# separated by tabs. Used by scripts/check-portable, so that it needs no JSON tool of its own.
file(READ "${COMMANDS}" json)
string(JSON count LENGTH "${json}")
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
  string(JSON directory GET "${json}" ${i} directory)
  string(JSON file GET "${json}" ${i} file)
  string(JSON command GET "${json}" ${i} command)
  message(NOTICE "${directory}\t${file}\t${command}") # NOTICE goes to standard error
endforeach()
