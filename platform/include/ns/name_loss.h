#pragma once

// Name loss: what becomes of a name, of a service or of a static connection, that is taken from a living server.
//
// Contract:
// - A name that disappears while its server lives, because something has cleaned up the place where names are kept, is
//   back within a second.
// - It is lost when another server has claimed it meanwhile, or when the server may no longer claim it. The log has the
//   reason, and the handler is called, once for each name that is lost.
// - A lost name is not claimed again. The server end stays open, and its clients are served on.
// - Clients that are connected notice nothing in either case.
//
// The platform on Linux leaves names alone when the environment of the process has BORVEN_NAME_WATCH=off.

/// `name`: of the service or the static connection. `context`: as given with the handler. Called on a thread of the
/// platform; must return soon, and must not close server ends or call NsOnNameLost.
using NsNameLostHandler = void (*)(const char* name, void* context);

/// Replaces the handler of this task; null: none.
///
/// Blocks: while the handler until now is being called. Threads: any.
void NsOnNameLost(NsNameLostHandler handler, void* context) noexcept;
