// libquarrin_platform: the utility layer for an ordinary Linux system.
//
// Linking it gives a program BU_RunCmd, UTIL_LOG_Print and BSP_PrintLog. A program that defines one of the three itself
// keeps its own, and can still call what stands behind the others.
#ifndef QUARRIN_PLATFORM_H
#define QUARRIN_PLATFORM_H

extern "C"
{

    /// Sets which log lines reach standard error.
    ///
    /// A line is written when its level is not above the limit: 3 lets errors through, 4 warnings too, 6 everything
    /// that libquarrin says. The limit is 6 until this is called. One message is one line: control characters in it, as
    /// a file's name may have them, are written as escapes.
    ///
    /// \param level  the limit; 0 or less silences every line, also the errors of QN_PLATFORM_RunCommand.
    ///
    /// Threads: any.
    void QN_PLATFORM_SetLogLevel(int level);

    /// Runs one shell command line and waits for it; what this library's BU_RunCmd does.
    ///
    /// The shell is bash, else busybox: their `echo` understands -e. Both are looked for in PATH and in /bin, /usr/bin
    /// and /usr/local/bin. The command's standard input is empty, the sbin folders stand at the end of its PATH, and it
    /// has a process group of its own, so that a Ctrl-C meant for the program does not tear a mkfs. Of the program's
    /// descriptors it gets standard output and error alone, and of its environment everything but what changes a
    /// shell's ways: SHELLOPTS, ENV and the like, all names that begin with BASH, and exported functions.
    ///
    /// The line "umount X; rm -rf X", X twice the same path, never reaches a shell. X that is no mount point is left
    /// alone. Otherwise umount takes one mount off, and only when X has stopped being a mount point its directory is
    /// removed, if it is empty. Of X that is a symbolic link (of root's or the program's user) the directory behind it
    /// is unmounted and removed, and the link goes too. A busy mount whose device node is gone, since the card was
    /// pulled, is taken off lazily: open files keep failing until they are closed, and the next card finds the
    /// directory free. The text between is one path, blanks and all. Any other line that begins with umount and goes on
    /// to an rm is refused.
    ///
    /// The line "mkdir -p X; mount D X" is answered with 0 and not run when the block device D is what is mounted on X:
    /// a card that the kernel announces twice stays mounted. D and X count by what they lead to, also through links.
    /// Otherwise D is mounted with the options nosuid, nodev and noexec, again with X as one path, blanks and all.
    ///
    /// \param cmd  NUL-terminated command line; borrowed for the call.
    ///
    /// \return the exit status of the line, 128 + n when signal n ended it; 127 when cmd is null, no shell could be
    ///         started, or there is no memory; 1 when the umount line was refused or not carried out to its end. The
    ///         reason goes to the log.
    ///
    /// Threads: any, also at the same time. It needs no SIGCHLD and minds no SIGCHLD handler: the host may ignore the
    ///          signal or collect all children itself, and may fork meanwhile.
    /// Blocks:  as long as the command runs.
    int QN_PLATFORM_RunCommand(const char *cmd);

    /// Removes a mount directory that a power cut or a kill has left behind; to be called before QN_Init.
    ///
    /// QN_Init takes a mount directory that exists for a mounted card, and would record onto the device's own flash. A
    /// directory goes when nothing is mounted on it and no file lies in it or below it; empty folders, such as those of
    /// the volumes, go with it. Only empty directories are ever removed, never a file. Of a symbolic link (of root's or
    /// the program's user) the directory behind it goes, and the link. Nothing is done where the device is there and no
    /// block device, /dev/null for one: a plain folder stands for a card then.
    ///
    /// \param device       the card's node, as in tagQN_STORAGE_PARAM_S; borrowed for the call.
    /// \param mount_point  the mount point; borrowed for the call.
    ///
    /// \return 0 when QN_Init may have the mount point: nothing is there, or a mounted file system, or a folder that
    ///         stands for a card; 1 when a directory stays that is no mounted card, an argument is null, or there is no
    ///         memory. The reason goes to the log.
    ///
    /// Threads: any, but nobody may mount there meanwhile.
    /// Blocks:  as long as the mount point's own file system takes to answer.
    int QN_PLATFORM_RemoveLeftover(const char *device, const char *mount_point);

} // extern "C"

#endif
