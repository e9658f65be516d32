#pragma once
// QBUserProcess: starts a program as another user, detached from the service, the way a session
// would start it for that user.
//
// The program runs in a grandchild of the calling process: the child only starts a new session,
// forks the grandchild and exits, and the caller reaps the child at once. So the service never
// keeps a zombie and never waits for the program, which belongs to init (or the nearest
// subreaper) once the child has gone.
//
// Everything the grandchild needs (argument and environment vectors, the group list) is made
// before the first fork; between fork and exec both processes make only async-signal-safe calls.
// The grandchild takes the user's group id, supplementary groups and user id, in this order, and
// runs only when all three succeed; it starts with an empty signal mask, default signal
// dispositions, the user's home as its working directory and exactly the given environment.
//
// Threads: may be called from any thread, also from several at once.
//
//   QBUserProcess::launchDetached(user, {"/usr/bin/gio", "launch", desktopFile},
//                                 user.sessionEnvironment());

#include <sys/types.h>

#include <string>
#include <vector>

struct QBConsoleUser;

class QBUserProcess {
public:
    // Starts arguments[0] with arguments as user, in the environment given; returns without
    // waiting for it. False when no process could be made or arguments is empty; what the
    // grandchild meets (an id it cannot take, a program that will not start) is not reported.
    static bool launchDetached(const QBConsoleUser& user, const std::vector<std::string>& arguments,
                               const std::vector<std::string>& environment);

    QBUserProcess() = delete;
};
