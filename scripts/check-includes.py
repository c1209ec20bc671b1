#!/usr/bin/env python3
"""Fails when a file of the library includes one of a floor above its own, when the session includes one
of the singletons, or when the units of a floor (a header and its source, or a family of them) include each
other in a circle. What includes what comes from the compiler."""

import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))

# From the ground up: a whole folder, or the name that a header and its source share.
FLOORS = (
    "KLVBase/",
    "KLVMsgExport KLVMsgVectors KLVMsgAtExit KLVMsgModuleCount KLVMsgComm_IF KLVMsgCommModules_IF "
    "KLVMsgSocket KLVMsgCommSocket KLVMsgServerSocket KLVMsgInetAddress KLVMsgSocketAddress "
    "KLVMsgSocketErrorInfo KLVMsgDiagnostics KLVMsgResolvedAddress KLVMsgSocketField "
    "KLVMsgSocketHold KLVMsgSocketInternals KLVMsgDepartures KLVMsgConnectionLost",
    "KLVMsgConnectionServicesUtils KLVMsgMapIntoString KLVMsgStringToSocketMsgProto "
    "KLVMsgNotedNumbers KLVMsgRegistryInternals",
    "KLVMsgChannel KLVMsgChannelList KLVMsgChannelQuery KLVMsgChannelQueryByLabel KLVMsgStream "
    "KLVMsgInputStream KLVMsgOutputStream KLVMsgSimpleInputStream KLVMsgBufferedOutputStream "
    "KLVMsgSocketMessage KLVMsgMessageQuery KLVMsgMessageQueryByType KLVMsgChannelMsgStruct "
    "KLVMsgElementFunctions",
    "KLVMsgChannelOrganizer KLVMsgChannelWaitable KLVMsgChannelWait KLVMsgCycle",
    "KLVMsgSocketCommunicator KLVMsgMessageTask",
    "KLVMsgCommModules",
    # The session, from its first floor to its fifth.
    "KLVMsgKitExport KLVMsgTimeLimit KLVMsgOutcome KLVMsgPeer KLVMsgEvent KLVMsgSessionOptions "
    "KLVMsgPeerInfo KLVMsgPeerInfoData KLVMsgNetwork KLVMsgProtection "
    "KLVMsgFramedMessage KLVMsgAnyMessage KLVMsgProtobufMessage KLVMsgCerealMessage KLVMsgCallMessage "
    "KLVMsgReceivedAny KLVMsgQuestionCounts "
    "KLVMsgMessageTypes KLVMsgParcel KLVMsgFifo KLVMsgSpentBodies KLVMsgBareReading KLVMsgWireReader KLVMsgWireWriter",
    "KLVMsgTransport KLVMsgPlainTransport KLVMsgSessionSockets KLVMsgQuietThread KLVMsgLinger "
    "KLVMsgSignal KLVMsgResolver KLVMsgDialer KLVMsgGreeting KLVMsgKitTls/",
    "KLVMsgOutput KLVMsgPeerWatch KLVMsgConnection",
    "KLVMsgLoop KLVMsgLoopGreeting KLVMsgLoopListening",
    "KLVMsgSession KLVMsgSessionCore KLVMsgSessionSending KLVMsgSessionReceiving KLVMsgInbox "
    "KLVMsgSessionAdmitting KLVMsgSessionGreeting KLVMsgSessionKeeping KLVMsgSessionEnding "
    "KLVMsgSessionAsking KLVMsgSessionDispatching KLVMsgMetrics "
    "KLVMsgPeerBook KLVMsgKeep KLVMsgEventQueue KLVMsgWaiting KLVMsgModuleUse",
    "KLVMsgBridge/",
    "examples/",
)

# What has its source together with others counts as one with them, under the first name.
FAMILIES = (
    "KLVBasAtiMutex KLVBasAtiThreadingModel",
    "KLVMsgChannelQuery KLVMsgChannelQueryByLabel",
    "KLVMsgMessageQuery KLVMsgMessageQueryByType",
    "KLVMsgStream KLVMsgInputStream KLVMsgOutputStream KLVMsgSimpleInputStream "
    "KLVMsgBufferedOutputStream",
    "KLVMsgSession KLVMsgSessionCore KLVMsgSessionSending KLVMsgSessionReceiving "
    "KLVMsgSessionAdmitting KLVMsgSessionGreeting KLVMsgSessionKeeping KLVMsgSessionEnding "
    "KLVMsgSessionAsking KLVMsgSessionDispatching",
)

# What the session does without: the two singletons with all that stands around them.
NOT_IN_KIT = ("KLVMsgCommModules.h", "KLVMsgSocketCommunicator.h", "KLVMsgConnectionServicesUtils.h",
              "KLVBasAtiGlobalSingleton.h")

# The one arrow up: the registry keeps prototypes by pointer, and calls their NewInstance.
MEANT = {("KLVMsgConnectionServicesUtils.cpp", "KLVMsgSocketMessage.h")}


def name(path):
    return os.path.splitext(os.path.basename(path))[0]


def floor(path):
    folder = path.split("/")[0] + "/"
    for number, rooms in enumerate(FLOORS, 1):
        if folder in rooms.split() or name(path) in rooms.split():
            return number
    sys.exit(f"{path} has no floor: give it one in {os.path.basename(__file__)}")


def included():
    """For each file all that it includes, be it through others."""
    listed = subprocess.run(["git", "ls-files", "KLV*.h", "KLV*.cpp"], cwd=ROOT, text=True,
                            stdout=subprocess.PIPE, check=True).stdout.split()
    folders = sorted({os.path.dirname(path) for path in listed}) + ["examples/common"]
    rules = subprocess.run([os.environ.get("CXX", "c++"), "-std=c++17", "-w", "-MM", "-MG",
                            *("-I" + folder for folder in folders), "-x", "c++", *listed],
                           cwd=ROOT, text=True, stdout=subprocess.PIPE, check=True).stdout
    rules = rules.replace("\\\n", " ").splitlines()
    names = (rule.split(":", 1)[1].split() for rule in rules)
    # -MG also lists what is not installed; only files of the project count.
    return {file: {os.path.normpath(name) for name in used
                   if os.path.isfile(os.path.join(ROOT, name))} - {file} for file, *used in names}


def arrows_up(uses):
    for file, used in sorted(uses.items()):
        own = floor(file)
        for other in sorted(used):
            up = floor(other)
            # Named is who draws the arrow, not all that include him.
            drawn = not any(other in uses.get(between, ()) and floor(between) < up
                            for between in used - {other})
            if up > own and drawn and (os.path.basename(file), os.path.basename(other)) not in MEANT:
                yield f"{file}, floor {own}, includes {other}, floor {up}"


def singletons_in_kit(uses):
    for file, used in sorted(uses.items()):
        for other in sorted(used):
            if file.startswith(("KLVMsgKit/", "KLVMsgKitTls/")) and os.path.basename(other) in NOT_IN_KIT:
                yield f"{file} includes {other}, which the session does without"


def unit(path):
    family = next((rooms for rooms in FAMILIES if name(path) in rooms.split()), name(path))
    return floor(path), family.split()[0]


def neighbours(uses):
    """For each unit those of its own floor that its files include themselves."""
    units = {}
    for file, used in uses.items():
        direct = {other for other in used
                  if not any(other in uses.get(between, ()) for between in used - {other})}
        units.setdefault(unit(file), set()).update(
            unit(other) for other in direct if floor(other) == floor(file))
    return {one: others - {one} for one, others in units.items()}


def circle(units, start):
    """The shortest way from a unit to itself, or none."""
    ways = [[start]]
    seen = set()
    for way in ways:
        for one in sorted(units.get(way[-1], ())):
            if one == start:
                return way + [start]
            if one not in seen:
                seen.add(one)
                ways.append(way + [one])
    return []


def circles(uses):
    """One through each unit that is in a circle and in none named before."""
    units = neighbours(uses)
    named = set()
    for one in sorted(units):
        found = circle(units, one) if one not in named else []
        named.update(found)
        if found:
            yield f"circle on floor {one[0]}: " + " -> ".join(room for _, room in found)


def main():
    uses = included()
    found = [*arrows_up(uses), *singletons_in_kit(uses), *circles(uses)]
    if found:
        sys.exit("\n".join(found))
    print(f"{len(uses)} files include from their own floor and those below, in no circle.")


if __name__ == "__main__":
    main()
