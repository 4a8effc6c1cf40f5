/* Links the host kit built as a subproject: no session is open yet. */
#include <lumetry/host.h>

int main(void) { return lumetry_host_session_path() == 0 ? 0 : 1; }
