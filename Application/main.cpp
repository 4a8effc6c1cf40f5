// Entry of the crash processor: `crash-processor <productName> <pid>`.
// The run is wired in by CrashRun; until then the program refuses to run.
int main() { return -1; }
