// SPDX-License-Identifier: Apache-2.0
// For programs with windows under the sanitizers: libraries stay loaded until the process ends.
//
// Mesa unloads its driver with the last display connection. What it left behind would then be
// reported without a library's name, and cmake/lsan.supp could not tell it from leaks of ours; the
// thread sanitizer ends the process when a library goes that cmake/tsan.supp names.
extern "C" int dlclose(void* /*handle*/)
{
    return 0;
}
