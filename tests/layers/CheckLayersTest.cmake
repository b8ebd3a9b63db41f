# The layer check must find violations. Each row is a file with an include, and the message it must
# cause (none when the include is allowed).
cmake_minimum_required(VERSION 3.25)

function(expect file include message)
    file(REMOVE_RECURSE ${WORK})
    foreach(header IN ITEMS src/VDIFrameworkCommon/sync/Event.h src/SharedMemory/src/SharedMemoryI.h
            src/virtualchannel/src/common/vc_agent/VirtualChannelAgent.h
            src/virtualchannel/src/common/vc_agent/messages/VCMessage.h
            src/virtualchannel/src/tc/common/WorkerThread.h)
        file(WRITE ${WORK}/${header} "#pragma once\n")
    endforeach()
    file(WRITE ${WORK}/${file} "#include <vector>\n  # include ${include}\n")
    execute_process(COMMAND ${CMAKE_COMMAND} -DROOT=${WORK} -DRULES=${RULES} -P ${CHECK}
        RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}")
    if(message STREQUAL "" AND NOT status EQUAL 0)
        message(SEND_ERROR "${file} may include ${include}, yet: ${output}")
    elseif(NOT message STREQUAL "" AND (status EQUAL 0 OR NOT output MATCHES "${message}"))
        message(SEND_ERROR "${file} including ${include} must give '${message}', not: ${output}")
    endif()
endfunction()

set(agent src/virtualchannel/src/common/vc_agent)
expect(src/SharedMemory/src/A.cpp "\"Event.h\"" "")
expect(src/VDIFrameworkCommon/A.cpp "\"SharedMemoryI.h\"" "[(]framework[)] must not include .*[(]sharedmemory[)]")
expect(src/VDIFrameworkCommon/A.cpp "<SharedMemoryI.h>" "[(]framework[)] must not include .*[(]sharedmemory[)]")
expect(src/VDIFrameworkCommon/A.cpp "\"src/SharedMemoryI.h\"" "[(]framework[)] must not include .*[(]sharedmemory[)]")
expect(${agent}/VirtualChannelAgentA.cpp "\"VCMessage.h\"" "")
expect(${agent}/messages/VCMessage.cpp "\"VirtualChannelAgent.h\"" "[(]messages[)] must not include .*[(]agent[)]")
expect(tools/vcctl/A.cpp "\"VCMessage.h\"" "")
expect(tools/vcctl/A.cpp "\"Event.h\"" "")
expect(tools/vcctl/A.cpp "\"WorkerThread.h\"" "[(]tools[)] must not include .*[(]channels[)]")
expect(hosts/freerdp/A.cpp "\"VirtualChannelAgent.h\"" "[(]hosts[)] must not include .*[(]agent[)]")
expect(src/Elsewhere/A.cpp "\"Event.h\"" "belongs to no layer")
file(REMOVE_RECURSE ${WORK})
