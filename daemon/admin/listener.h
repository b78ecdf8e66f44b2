#pragma once

/// The listener thread: subscribes to koducronchannel and once a second hands the task ids that
/// have been notified to the loader, additions first, in the order of their notifications. A
/// payload is a JSON object: "TYPE" ("SERVICE"), "COMMAND" ("ADD" or "UPDATE"), "ID" (an integer).
/// Returns once the stop flag is set, within about two seconds and the loader's call in progress.
/// While another thread's statement hangs, no notification is read. A call of the loader and the
/// subscription at the start wait for that statement.
///
/// Catches nothing: a payload that is JSON but not an object (except null, which is ignored), a
/// value of the wrong type, and a statement that fails, end the process.
void th_listener();
