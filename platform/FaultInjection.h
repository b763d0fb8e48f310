// Faults that test builds (TAVO_FAULT_INJECTION defined) can inject through the platform
// layer, for conditions no test can create for real. Other builds ignore all of this.
//
// Free space: when the environment variable TAVO_FAKE_FREE_BYTES is set, platform_statfs and
// platform_fstatfs first make the real call (so a bad path or descriptor still fails), then
// report exactly that many free bytes: f_bsize and f_frsize become 1, f_bfree and f_bavail
// the given number. The value "fail" makes both calls fail with EIO instead. The variable is
// read on every call, so a test may change it between calls.
#ifndef TAVO_PLATFORM_FAULT_INJECTION_H
#define TAVO_PLATFORM_FAULT_INJECTION_H

#define TAVO_FAKE_FREE_BYTES_ENV "TAVO_FAKE_FREE_BYTES"

#endif  // TAVO_PLATFORM_FAULT_INJECTION_H
