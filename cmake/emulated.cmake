# What was built for another processor is started through a script of its name, so that whoever
# starts it need not know; the program itself is in the folder `emulated` beside it.
function(vyt_start_in_emulator target name)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY emulated)
  set(start "${CMAKE_CROSSCOMPILING_EMULATOR} -0 \"$0\" \"$<TARGET_FILE:${target}>\"")
  file(GENERATE OUTPUT ${name} CONTENT "#!/bin/sh\nexec ${start} \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
      GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endfunction()
