// Result codes of the store and the client's utility operations. They are
// apart from DropboxProtocol::ErrorCode: 0 is success everywhere, and the
// store passes SQLite's own positive codes through unchanged.
#pragma once

#define QS_FAILED (-1)          // no statement, or a write that did not run to its end
#define QS_NOT_IMPEMENTED (-7)  // a result queue that was never initialised
#define QS_NOT_FOUND (-8)       // a read of one row found none
