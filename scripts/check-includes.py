#!/usr/bin/env python3
"""Fails when a file of the library includes one of a floor above its own, or when files include each
other in a circle. What includes what comes from the compiler."""

import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))

# From the ground up: a whole folder, or the name that a header and its source share.
FLOORS = (
    "KLVBase/",
    "KLVMsgExport KLVMsgVectors KLVMsgModuleCount KLVMsgComm_IF KLVMsgCommModules_IF "
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
    "KLVMsgCommModules KLVMsgKit/",
    "examples/",
)

# The one arrow up: the registry keeps prototypes by pointer, and calls their NewInstance.
MEANT = {("KLVMsgConnectionServicesUtils.cpp", "KLVMsgSocketMessage.h")}


def floor(path):
    folder, name = path.split("/")[0] + "/", os.path.splitext(os.path.basename(path))[0]
    for number, rooms in enumerate(FLOORS, 1):
        if folder in rooms.split() or name in rooms.split():
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


def faults(uses):
    for file, used in sorted(uses.items()):
        own = floor(file)
        for other in sorted(used):
            up = floor(other)
            # Named is who draws the arrow, not all that include him.
            drawn = not any(other in uses.get(between, ()) and floor(between) < up
                            for between in used - {other})
            if up > own and drawn and (os.path.basename(file), os.path.basename(other)) not in MEANT:
                yield f"{file}, floor {own}, includes {other}, floor {up}"
            if file < other and file in uses.get(other, ()):
                yield f"{file} and {other} include each other"


def main():
    uses = included()
    found = list(faults(uses))
    if found:
        sys.exit("\n".join(found))
    print(f"{len(uses)} files include from their own floor and those below, in no circle.")


if __name__ == "__main__":
    main()
