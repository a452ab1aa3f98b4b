// Layout of a simulated device root, shared by the launcher, the device
// simulator and the tests. Paths below are relative to ROOT unless they
// begin with '/', in which case they are as seen inside the sandbox.
#pragma once

// Simulator-side files, kept apart from the device's own tree.
#define SIM_DIR "sim"
#define SIM_STDOUT_FILE SIM_DIR "/tovakd.stdout"
#define SIM_LOCK_FILE SIM_DIR "/lock"

// The client socket as seen from outside the sandbox.
#define SIM_CLIENT_SOCKET "dev/ps_socket/tovak"

// The host diag library's link to the simulated modem.
#define SIM_DIAG_SOCKET "/dev/socket/diag"
