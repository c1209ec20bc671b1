// A program that is a server or one of its clients, or, alone, all of them.
#pragma once

#include <string>
#include <vector>

#include "Program.h"

struct Roles {
    const char* server;
    int (*serve)(int portPipe);  // tells its port there, unless it is -1
    const char* client;
    int (*visit)(int port, const std::string& word);
    std::vector<std::string> words;  // one client for each, where the program runs all of them
};

// What main returns. The processes part before there is a session: its thread and sockets are not
// inherited.
inline int RunRoles(const char* name, const char* usage, int argc, char** argv,
                    const Roles& roles) {
    const CommandLine line(name, usage, argc, argv);
    return RunRole(name, [&] {
        if (line.Calls(roles.server, 0)) {
            return roles.serve(-1);
        }
        if (line.Calls(roles.client, 2)) {
            return roles.visit(line.Number(line.Word(1), 1, 65535), line.Word(2));
        }
        if (!line.Calls("", 0)) {
            line.Refuse("no such role");
        }
        Children children;
        const int port = children.StartServer(roles.server, roles.serve);
        for (std::size_t i = 0; port != 0 && i < roles.words.size(); ++i) {
            children.Start(std::string(roles.client) + " " + roles.words[i],
                           [&] { return roles.visit(port, roles.words[i]); });
        }
        return children.Await() && port != 0 ? 0 : 1;
    });
}
