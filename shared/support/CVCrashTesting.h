// Test seam of CVCrashOnException. Only tests include this header.
//
// A hook installed here runs in place of the final abort, once the message is
// recorded and written; it should end the process itself (with _exit, after
// checking what it wants to check). If it returns, the process aborts anyway.
#pragma once

using CVCrashAbortHook = void (*)();

// Installs `hook` (nullptr removes it) and returns the previous one.
CVCrashAbortHook CVSetCrashAbortHookForTesting(CVCrashAbortHook hook);
