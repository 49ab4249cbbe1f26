#pragma once

// The transport that carries the records. Everything outside this folder, and nothing in it, includes this header: it
// is the one place that chooses. Another transport is a pair of classes with these names and public members, in files
// of its own, and two other includes here:
//
// - Channel, the server's end: DeadClient, MaxClients, AddClient over a connected socket, RemoveClient, Receive, Reply,
//   Close, ClientCount
// - Connection, a client's end: Join, Call, Close
//
// RequestFilter decides which requests pass and is the same for every transport.
#include "records/request_filter.h"
#include "records/shared_memory_channel.h"
#include "records/shared_memory_connection.h"
