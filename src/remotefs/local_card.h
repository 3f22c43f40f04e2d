// The local card ("sdcard0.o" in the working directory) belongs to one
// process: the first getfs takes its lock and keeps it while the process
// lives, so that two programs started in one directory never serve, or put
// back, each other's card.
#pragma once

#include "session/session.h"

namespace vukra::remotefs {

// True when this process holds the local card (taking it now if no one
// does). Otherwise false with the error word kLocalCardInUse (another
// process holds it) or kLocalCardFailed (it cannot be made or locked).
//
// A card that has another name besides "sdcard0.o" is one kept aside (a
// mount that ended before its put names it "sdcard0-unsaved-..."): the name
// "sdcard0.o" is let go and a new card takes it, so the kept one is never
// overwritten.
bool hold_local_card(session::Session& s);

} // namespace vukra::remotefs
