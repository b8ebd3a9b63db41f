# The layers, bottom to top, and which of them each may include besides itself.
#
# layer(<name> FILES <regex over the path from the top of the tree> [USES <layer>...])
# The first layer that matches a file is its layer, so that one layer's folder can lie in another's.
layer(framework         FILES "^src/VDIFrameworkCommon/")
layer(sharedmemory      FILES "^src/SharedMemory/" USES framework)
layer(packets           FILES "^src/virtualchannel/src/common/utils/" USES framework)
layer(channel-interface FILES "^src/virtualchannel/src/common/[^/]+$")
layer(messages          FILES "^src/virtualchannel/src/common/vc_agent/messages/" USES framework)
layer(agent             FILES "^src/virtualchannel/src/common/vc_agent/"
                        USES messages channel-interface sharedmemory framework)
layer(host-header       FILES "^src/virtualchannel/src/tc/SharedLib/LanguageAbstraction[.]h$")
layer(channels          FILES "^src/virtualchannel/src/tc/"
                        USES host-header agent messages packets channel-interface sharedmemory framework)
layer(client-library    FILES "^src/StreamClient/" USES sharedmemory framework)
# Packets and messages are there for reading captures; the plug-in itself only through its exports.
layer(tools             FILES "^tools/" USES client-library host-header messages packets sharedmemory framework)
