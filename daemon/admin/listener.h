#pragma once

/// The listener thread: subscribes to koducronchannel and once a second hands the task ids that
/// have been notified to the loader, additions first, in the order of their notifications. A
/// payload is a JSON object: "TYPE" ("SERVICE"), "COMMAND" ("ADD" or "UPDATE"), "ID" (an integer).
/// Returns once the stop flag is set, within about a second, the loader's call and
/// another thread's statement in progress.
///
/// Catches nothing: a payload that is JSON but no object (null excepted, which is ignored), one
/// that is nested too deeply, a value of the wrong type, and a statement that fails, end the
/// process.
void th_listener();
