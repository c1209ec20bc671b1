#include "Options.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>

#include "Text.h"

namespace {

const char help[] =
    R"(usage: klvmsg-bridge [OPTION]...

Carries messages between sessions and NATS. An option is "--name value"; --config FILE reads them
from a file, one in a line as "name value". See klvmsg-bridge(1).

sessions
  --connect [LABEL=]HOST:PORT    connect to a program that serves, and again when it is lost
  --serve [LABEL=][HOST:]PORT    let programs connect; on 127.0.0.1 unless told otherwise
  --rules RULES | @FILE          how long bodies are that are not framed: "Tick=8;..."
  --tls CERTIFICATE,KEY,AUTHORITY
NATS
  --nats URL[,URL]...            servers of one cluster; nats://127.0.0.1:4222
  --nats-tls AUTHORITY[,CERTIFICATE,KEY]
  --nats-credentials FILE
what goes where
  --publish TYPE=SUBJECT         "*" for all types; in its subject "*" stands for the type
  --subscribe SUBJECT=LABEL      to the connections that have the label
  --prefix TEXT                  before every subject to which something is published
  --site NAME, --name NAME       where the bridge stands, and what it is called there
at least once
  --stream NAME                  a stream of JetStream; it is made if there is none
  --replicas N                   how many copies a stream has that is made
  --group NAME                   bridges of one site that take turns
  --window N, --answer SECONDS   how many are open at a time, and how long one waits
what is told
  --log words|json, --counts SECONDS
  --check                        say what would go where, and end
  --help, --version
)";

// [LABEL=][HOST:]PORT; [IPv6]:PORT as well.
Options::Place ParsePlace(const std::string& text, bool isServed) {
    Options::Place place;
    const std::size_t sign = text.rfind('=');
    const std::string address = sign == std::string::npos ? text : text.substr(sign + 1);
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos && !isServed) {
        throw UsageError("not of the form [LABEL=]HOST:PORT: '" + text + "'");
    }
    place.host = colon == std::string::npos ? "127.0.0.1" : address.substr(0, colon);
    if (place.host.size() > 2 && place.host.front() == '[' && place.host.back() == ']') {
        place.host = place.host.substr(1, place.host.size() - 2);
    }
    place.port = static_cast<int>(ParseNumber(
        colon == std::string::npos ? address : address.substr(colon + 1), 65535, "the port"));
    place.label =
        sign == std::string::npos ? (isServed ? "served" : address) : text.substr(0, sign);
    return place;
}

void ParseTls(const std::string& text, Options& options) {
#ifndef KLVMSG_BRIDGE_TLS
    throw UsageError("--tls " + text + ": this bridge was built without OpenSSL");
#endif
    const std::vector<std::string> files = Split(text, ',');
    if (files.size() != 3) {
        throw UsageError("not of the form CERTIFICATE,KEY,AUTHORITY: '" + text + "'");
    }
    options.certificate = files[0], options.key = files[1], options.authority = files[2];
}

void ParseNatsTls(const std::string& text, Options& options) {
    const std::vector<std::string> files = Split(text, ',');
    if (files.size() != 1 && files.size() != 3) {
        throw UsageError("not of the form AUTHORITY[,CERTIFICATE,KEY]: '" + text + "'");
    }
    options.natsAuthority = files[0];
    if (files.size() == 3) {
        options.natsCertificate = files[1], options.natsKey = files[2];
    }
}

using Setter = std::function<void(Options&, const std::string&)>;

Setter Text(std::string Options::*member) {
    return [member](Options& options, const std::string& value) { options.*member = value; };
}

void Set(const std::string& name, const std::string& value, Options& options);

void ReadConfiguration(const std::string& path, Options& options) {
    for (const std::string& line : Split(ReadFile(path), '\n')) {
        const std::string_view words = Trimmed(line);
        if (words.empty() || words[0] == '#') {
            continue;
        }
        const std::size_t space = words.find_first_of(" \t");
        const std::string_view value =
            space == words.npos ? std::string_view() : Trimmed(words.substr(space));
        try {
            Set(std::string(words.substr(0, space)), std::string(value), options);
        } catch (const UsageError& error) {
            throw UsageError(path + ": " + error.what());
        }
    }
}

void SetLog(Options& options, const std::string& value) {
    if (value != "words" && value != "json") {
        throw UsageError("the log is in words or json, not '" + value + "'");
    }
    options.isJson = value == "json";
}

const std::map<std::string, Setter>& Setters() {
    static const std::map<std::string, Setter> setters = {
        {"connect",
         [](Options& o, const std::string& v) { o.connects.push_back(ParsePlace(v, false)); }},
        {"serve",
         [](Options& o, const std::string& v) { o.serves.push_back(ParsePlace(v, true)); }},
        {"nats", Text(&Options::nats)},
        {"publish", [](Options& o, const std::string& v) { o.routes.AddOutward(v); }},
        {"subscribe", [](Options& o, const std::string& v) { o.routes.AddInward(v); }},
        {"prefix", [](Options& o, const std::string& v) { o.routes.SetPrefix(v); }},
        {"rules", [](Options& o, const std::string& v) { o.rules.Add(v); }},
        {"site", Text(&Options::site)},
        {"name", Text(&Options::name)},
        {"group", Text(&Options::group)},
        {"stream", Text(&Options::stream)},
        {"replicas",
         [](Options& o, const std::string& v) {
             o.replicas = static_cast<int>(ParseNumber(v, 5, "replicas"));
         }},
        {"window",
         [](Options& o, const std::string& v) { o.window = ParseNumber(v, 1000000, "window"); }},
        {"answer",
         [](Options& o, const std::string& v) {
             o.answer = std::chrono::seconds(ParseNumber(v, 3600, "answer"));
         }},
        {"tls", [](Options& o, const std::string& v) { ParseTls(v, o); }},
        {"nats-tls", [](Options& o, const std::string& v) { ParseNatsTls(v, o); }},
        {"nats-credentials", Text(&Options::natsCredentials)},
        {"log", SetLog},
        {"counts",
         [](Options& o, const std::string& v) {
             o.counts = std::chrono::seconds(ParseNumber(v, 86400, "counts"));
         }},
        {"check", [](Options& o, const std::string&) { o.isCheck = true; }},
        {"config", [](Options& o, const std::string& v) { ReadConfiguration(v, o); }}};
    return setters;
}

bool IsFlag(const std::string& name) { return name == "check"; }

void Set(const std::string& name, const std::string& value, Options& options) {
    const auto setter = Setters().find(name);
    if (setter == Setters().end()) {
        throw UsageError("there is no option " + name);
    }
    if (value.empty() != IsFlag(name)) {
        throw UsageError(name + (value.empty() ? " needs a value" : " has no value"));
    }
    setter->second(options, value);
}

void Complete(Options& options) {
    if (options.connects.empty() && options.serves.empty()) {
        throw UsageError("neither --connect nor --serve; see klvmsg-bridge --help");
    }
    if (options.routes.Outwards().empty() && options.routes.Inwards().empty()) {
        throw UsageError("nothing to do: give --publish or --subscribe");
    }
    if (options.window == 0 || options.answer.count() == 0) {
        throw UsageError("window and answer are numbers from 1");
    }
    if (options.site.empty()) {
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        options.site = host;
    }
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            std::fputs(help, stdout);
            std::exit(0);
        }
        if (word == "--version") {
            std::puts("klvmsg-bridge " KLVMSG_BRIDGE_VERSION);
            std::exit(0);
        }
        if (word.substr(0, 2) != "--") {
            throw UsageError("what is '" + word + "'? See klvmsg-bridge --help");
        }
        const std::string name = word.substr(2);
        const bool hasValue = !IsFlag(name) && i + 1 < argc;
        Set(name, hasValue ? argv[++i] : "", options);
    }
    Complete(options);
    return options;
}

std::string Describe(const Options& options) {
    std::string text;
    for (const auto& [type, subject] : options.routes.Outwards()) {
        text += type == "*" ? "messages of every other type" : "messages of " + type;
        text.append(" go to the subject ").append(subject).append("\n");
    }
    for (const Routes::Inward& inward : options.routes.Inwards()) {
        text += "what comes on " + inward.subject + " goes to the label " + inward.label + "\n";
    }
    for (const Options::Place& place : options.connects) {
        text += "the label " + place.label + " is a connection to " + place.host + ", port " +
                std::to_string(place.port) + "\n";
    }
    for (const Options::Place& place : options.serves) {
        text += "the label " + place.label + " is who connects to " + place.host + ", port " +
                std::to_string(place.port) + "\n";
    }
    for (const auto& [type, rule] : options.rules.All()) {
        text += "bodies of " + type + " have " +
                (rule.width == 0 ? std::to_string(rule.fixed) + " bytes"
                                 : "a length behind " + std::to_string(rule.offset) + " bytes") +
                "\n";
    }
    return text + "what comes from the site " + options.site + " is not taken\n" +
           (options.stream.empty() ? "at most once\n"
                                   : "at least once, with the stream " + options.stream + "\n");
}
