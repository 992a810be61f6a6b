# Fails unless the page GUIDE shows the file EXAMPLE whole, as it is, in one
# C code block.
#   cmake -DGUIDE=... -DEXAMPLE=... -P shown_whole.cmake
file(READ "${GUIDE}" guide)
file(READ "${EXAMPLE}" example)
string(FIND "${guide}" "```c\n${example}```\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${GUIDE} does not show ${EXAMPLE} as it is")
endif()
