"""The commands of `klvmsg`, a module for each, found by its name.

A module has `add(commands)`, which enters its command and options, and `run(options)`, which returns
the exit code. What only one command needs to have installed is imported when that command runs.
"""
