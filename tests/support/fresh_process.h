/// Tests of what happens only once in the life of a process: a first open, a first call.
#pragma once

/// Put first in a test:
///
///     if (!in_fresh_process())
///         return;
///
/// In the ordinary run it starts this test program again for the current test alone, expects it to
/// pass there and answers 0; in that new process it answers 1.
int in_fresh_process();
