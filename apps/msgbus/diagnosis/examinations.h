#pragma once

#include "diagnosis/doctor.h"
#include "instruments/snapshot.h"

#include <functional>
#include <optional>
#include <vector>

namespace diagnosis {

/// The runtime directory: where it is, whose, and whether it may be used.
Finding ExamineDirectory();

/// The account of the server of this runtime directory. Returns: the finding, and the account if there is one that can
/// be read.
Finding ExamineAccount(std::optional<instruments::Snapshot>& snapshot);

/// Whether the server works, as `msgbus check` judges it.
Finding ExamineServer(const instruments::Snapshot& snapshot);

/// Whether client and server are of the same version.
Finding ExamineVersions(const instruments::Snapshot& snapshot);

/// Whether the mode that is asked for, by an option or by BORVEN_BUS, is that in which the server serves.
Finding ExamineMode(const BusAccess& access, const instruments::Snapshot& snapshot);

/// How many descriptors this process may open, and the server.
Finding ExamineOwnLimit();
Finding ExamineServerLimit(const instruments::Snapshot& snapshot);

/// A value there and back.
Finding ExamineDelivery(const BusAccess& access);

} // namespace diagnosis
