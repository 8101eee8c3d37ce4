#include "tools/Shell.h"

#include <gtest/gtest.h>

TEST(DaemonExample, DoesWhatItIsAskedAndEndsCleanly)
{
    const ky::test::TemporaryFolder folder;
    const std::string words =
        "D=" KY_EXAMPLE_DAEMON
        "; until_tells() { until $D $1 status 2>&1 | grep -q \"$2\"; do kill -0 $! || exit 9; done;"
        " }\n";
    // At last its parent leaves, and a second one, with the settings that it brings along, is
    // killed, started again and told to go.
    ExpectShell(
        folder,
        {{"mkdir home work other; printf '1\\n2\\n' > work/a.html; printf '3\\nno end' > work/b; "
          ": > other/c.css; printf '[scan]\\nfolder = work\\n[control]\\npipe = inventory\\n"
          "[limits]\\nparent = true\\n' > home/daemon.ini"},
         {words + "$D home & until_tells home 'work: 2 files, 12 bytes, 3 lines'\n"
                  "$D home status | tail -n 2\n"
                  "$D home 2> second; echo $?\n"
                  "mkdir twin; cp home/daemon.ini twin; $D twin 2>> second; echo $?\n"
                  "grep -c 'Fail to acquire lock' second\n"
                  "sed -i s,work,other, home/daemon.ini; kill -HUP $!\n"
                  "until_tells home 'other: 1 files'\n"
                  "cp home/daemon.ini good; echo memory = much >> home/daemon.ini\n"
                  "echo reload | ky pipe connect inventory\n"
                  "cp good home/daemon.ini; $D home reload\n"
                  "$D home stop; wait $!; echo $?; grep -c ' : ended$' "
                  "home/*.log",
          0,
          "1 of no known type\n1 text/html\n1\n1\n2\n"
          "wrong settings, see the log; going on with the old ones\ndone\nstopping\n0\n1\n"},
         {words + "( $D home & until_tells home files )\n"
                  "while [ -e home/daemon.lock ]; do :; done\n"
                  "$D new & until_tells new 'idle\\|scanning'; { kill -9 $!; wait $!; } 2> none\n"
                  "$D new & until_tells new 'idle\\|scanning'; kill $!; wait $!; echo $?\n"
                  "ls home/*.lock inventory* new/*.lock ky-daemon* 2> none",
          2, "0\n"}});
}
