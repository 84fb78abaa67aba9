// The host metadata queries: directory listings, file facts, file contents
// that match a pattern, the environment and listening ports, each filling a
// CHostMetaDataQueryResult with sorted items (see HostMetaData.h), plus the
// list of commands this host answers.
//
// Every query has one signature: it adds items to result.items, sets
// "commandVersion", and returns true when there is an answer. A missing
// argument or a target that can't be read is false, with nothing logged
// (an invalid pattern logs the compiler's complaint). Paths are given as
// text and reach the system as UTF-8; names and lines read from the system
// become text by the rule of HmdText.h.
//
// Thread safety: each call works on its own objects; the environment is
// read without a lock, as getenv is.
#pragma once

#include <sys/socket.h>
#include <wx/string.h>

#include <vector>

#include "core/common/Export.h"
#include "core/host/ConnectionTables.h"
#include "core/host/HostMetaData.h"

namespace VeskCore {

using HmdQuery = bool (*)(CHostMetaDataQueryResult& result, int argCount, const wxString* args);

// args[0]: a directory. One "directoryListing" item whose "entries" is each
// name but "." and ".." followed by "|", in the directory's own order.
VESK_EXPORT bool GetHmdDirectoryListing(CHostMetaDataQueryResult& result, int argCount,
                                        const wxString* args);

// Paths. A "fileInfo" item for each that is a directory or a regular file
// (links followed): "type", times in milliseconds ("lastAccess",
// "lastModified", "created" from the change time), "size", "mode" ("%#o" of
// the whole mode), "userId", "groupId" (which repeats the owner, as the
// managers expect), and "linkTo" for a link. Others get no item.
VESK_EXPORT bool GetHmdFileInfo(CHostMetaDataQueryResult& result, int argCount,
                                const wxString* args);

// Names, or none for all: an "environmentVariable" item with "value" for
// each that is set.
VESK_EXPORT bool GetHmdEnvironment(CHostMetaDataQueryResult& result, int argCount,
                                   const wxString* args);

// args: a regular file, a pattern (empty: every line), a size limit in
// decimal (default 1000000 bytes). One "fileContents" item: "matchedStrings"
// holds each line with a match anywhere, followed by "\n"; "searchString"
// the pattern. See HmdFileContents.h for lines, patterns and bytes. False
// for anything but a readable regular file, a file above the limit (counted
// in bytes read, for files that report no size), or a pattern that does not
// compile.
VESK_EXPORT bool GetHmdFileContents(CHostMetaDataQueryResult& result, int argCount,
                                    const wxString* args);

// Any argument "detailed" adds the owners. A "listenPort" item per TCP
// listener and UDP endpoint address, identified "tcp/ADDRESS/PORT" or
// "tcp6/..." ("udp" alike); sockets sharing an address count in
// "listeners" from the second on, their owners' values merged. A protocol
// whose table can't be read is left out; the answer is always true.
VESK_EXPORT bool GetHmdListenPorts(CHostMetaDataQueryResult& result, int argCount,
                                   const wxString* args);

// The commands of this host (and of its scripts), with the attributes each
// reports. Always true.
VESK_EXPORT bool GetHmdQueryCapabilities(CHostMetaDataQueryCapabilitys& list);

// Sorts each table, then adds each entry through ConnectionToHmdqr, IPv4
// first: the same tables give the same result on every run.
VESK_EXPORT void ConnectionTablesToHmdqr(std::vector<CConnectionTableEntryEx> ipv4Table,
                                         std::vector<CConnectionTableEntryExV6> ipv6Table,
                                         const char* protocol, CHostMetaDataQueryResult& result);

// One socket's item, or, when its address and port have one already, one
// more listener merged into it. `version` is "4" or "6".
VESK_EXPORT void ConnectionToHmdqr(const sockaddr* address, socklen_t length, const char* protocol,
                                   const char* version, const CConnectionInfo& info,
                                   CHostMetaDataQueryResult& result);

}  // namespace VeskCore
