// Layout of a simulated device root, shared by the launcher, the device
// simulator and the tests. Paths below are relative to ROOT unless they
// begin with '/', in which case they are as seen inside the sandbox.
#pragma once

// Simulator-side files, kept apart from the device's own tree. The sandbox
// shows ROOT/sim at /sim, where tovak-devsim writes its own files.
#define SIM_DIR "sim"
// Present only inside a device's sandbox, where the launcher binds ROOT/sim.
#define SIM_SANDBOX_MARK "/" SIM_DIR
#define SIM_STDOUT_FILE SIM_DIR "/tovakd.stdout"
#define SIM_LOCK_FILE SIM_DIR "/lock"
// The launcher's account of tovakd: "pid N", "starts K", "last_exit TEXT".
#define SIM_DAEMON_STATE_FILE SIM_DIR "/tovakd.state"
// The logger's text file, in logcat's threadtime format.
#define SIM_LOGCAT_FILE SIM_DIR "/logcat.txt"
// QMI saves: KIND_NUMBER_SEQ.bin, the bytes exactly as given.
#define SIM_QMI_DIR SIM_DIR "/qmi"

// The client socket as seen from outside the sandbox.
#define SIM_CLIENT_SOCKET "dev/ps_socket/tovak"

// The host diag library's link to the simulated modem.
#define SIM_DIAG_SOCKET "/dev/socket/diag"
// tovak-devsim's control socket as seen from outside the sandbox.
#define SIM_CTL_SOCKET "dev/socket/tovak_devsim"
