#!/usr/bin/awk -f
# Turns the headers' plain comments into ones that doxygen reads: doxygen-filter.awk HEADER
#
# - The comment at the head of a file becomes that file's text.
# - A comment counts for every declaration that follows it without an empty line between.
# - A class without one is what the first line of its file says.
# - A comment behind a member belongs to that member.
# - What is deleted is left out, and every header joins a group of docs/groups.dox.
# - "// Name -----" inside a class starts a group of that name, "Requires:" a precondition.

function flush_comment(    i) {
    for (i = 1; i <= comment_lines; i++) {
        print indent "///" comment[i]
    }
}

function forget_comment() {
    comment_lines = 0
    used = 0  # whether a declaration has had the comment
}

function close_group() {
    if (in_group) {
        print "    ///@}"
    }
    in_group = 0
}

# The group of the header that is being read.
function group_of(name) {
    sub(/.*\//, "", name)
    sub(/\.h$/, "", name)
    if (name ~ /^KLVMsgComm(Modules)?(_IF)?$|^KLVBasModules$|GlobalSingleton$/) return "start"
    if (name ~ /^KLVMsg(SocketCommunicator|MessageTask)$|^KLVBasAtiThread(Task)?$/) return "talk"
    if (name ~ /^KLVMsg(Framed|Protobuf|Cereal)Message$|^KLVMsg(Kit|Session|Outcome|TimeLimit|Peer|Event|Protection|Tls)/) return "kit"
    if (name ~ /^KLVMsgSocketMessage$|Stream$/) return "messages"
    if (name ~ /^KLVMsg(Channel|ChannelMsgStruct|SocketAddress|ConnectionServicesUtils)$/) return "connections"
    if (name ~ /^KLVMsg.*Query/) return "queries"
    if (name ~ /^(KLVString|KLVBasVector|KLVBasUtlsleep|aio_ostream)$/) return "text"
    return name ~ /^KLVMsg.*(Socket|Waitable|Organizer|Address)/ ? "sockets" : "base"
}

BEGIN {
    at_head = 1
    print "/// @file"
}

FNR == 1 {
    group = group_of(FILENAME)
}

END {
    if (group_is_open) {
        print "/// @}"
    }
}

# The head of the file, up to the first line that is no comment.
at_head && /^\/\// {
    print "///" substr($0, 3)
    if (head == "") {
        head = toupper(substr($0, index($0, ": ") + 2, 1)) substr($0, index($0, ": ") + 3)
    }
    next
}
at_head {
    at_head = 0
    print "/// @addtogroup " group "\n/// @{"
    group_is_open = 1
}

# Instantiations and friends say nothing to a reader.
/^extern template / { next }
/^ *friend class / { next }

/^ *\/\/ [-A-Za-z ]+ -----+$/ {
    close_group()
    sub(/ -----+$/, "")
    sub(/^ *\/\/ /, "")
    print "    /// @name " $0
    group_text = 1
    next
}

# A comment that is a line of its own. One that follows a group's name describes the group.
/^ *\/\// {
    if (!in_comment) {
        forget_comment()
    }
    in_comment = 1
    match($0, /^ */)
    indent = substr($0, 1, RLENGTH)
    text = substr($0, RLENGTH + 3)
    sub(/^ Requires: /, " @pre ", text)
    comment[++comment_lines] = text
    next
}

/^ *$/ {
    if (group_text) {
        flush_comment()
        print "    ///@{"
        group_text = 0
        in_group = 1
    }
    in_comment = 0
    forget_comment()
    print
    next
}

/^(public|protected|private):/ || /^};/ {
    open = depth = 0
    close_group()
    in_comment = 0
    forget_comment()
    print
    next
}

# Code: the comment goes before each line that begins a declaration.
{
    in_comment = 0
    code = $0
    sub(/ *\/\/.*/, "", code)
    if (code ~ / = delete;$/) {
        next
    }
    if (!open && code ~ /^    };$/) {
        forget_comment()
        print code
        next
    }
    behind = match($0, / +\/\/ /) ? "  ///< " substr($0, RSTART + RLENGTH) : ""
    if (!open && code !~ /^ *}/ && code !~ /^#(pragma|include)/) {
        if (code ~ /^class .*[{:]$/ && comment_lines == 0) {
            print "/// " head
        } else if (!(used && (code ~ /^ *~/ || behind != ""))) {
            flush_comment()
        }
        used = 1
    }
    print code behind

    # What stands in a class within a class has comments of its own, too.
    if (code ~ /^(class|struct) / || code ~ /^    struct [A-Za-z]+ [{]$/) {
        in_class_head = 1
    }
    if (in_class_head) {
        open = code !~ /[{;]$/
        in_class_head = open
        forget_comment()  # what stands inside has comments of its own
    } else if (code !~ /^#/) {
        depth += gsub(/[{]/, "{", code) - gsub(/[}]/, "}", code)
        open = depth > 0 || code !~ /[;}]$/
    }
}
