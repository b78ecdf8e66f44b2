#pragma once

/// The timer thread: moves each task whose time has passed from serviceQueue to queueExecTask,
/// earliest first, and looks again after a second when none is due. A task whose time is the
/// current second is not due yet. Returns once the stop flag is set, within about a second.
void th_readPqeue();
