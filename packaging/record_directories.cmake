# Runs at the start of an installation: notes in VYT_RECORD which of VYT_DIRECTORIES, and which
# directories above them, are not there yet. uninstall.cmake removes only these, so that a
# directory that was there before stays, even an empty one.
set(made)
if(EXISTS ${VYT_RECORD})
  file(STRINGS ${VYT_RECORD} made)
endif()
foreach(directory IN LISTS VYT_DIRECTORIES)
  cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
  set(directory $ENV{DESTDIR}${directory})
  cmake_path(ABSOLUTE_PATH directory)
  while(NOT EXISTS ${directory})
    list(APPEND made ${directory})
    cmake_path(GET directory PARENT_PATH directory)
  endwhile()
endforeach()
list(REMOVE_DUPLICATES made)
list(JOIN made "\n" made)
file(WRITE ${VYT_RECORD} "${made}\n")
