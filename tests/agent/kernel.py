"""Becomes a program for which the kernel is another one.

    kernel.py without-landlock COMMAND ...   one that has no Landlock
    kernel.py layers NUMBER COMMAND ...      one whose confinements are used up but for 16 - NUMBER
"""

import ctypes
import errno
import os
import struct
import sys

PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS = 22, 38
SECCOMP_MODE_FILTER = 2
SECCOMP_RET_ALLOW, SECCOMP_RET_ERRNO = 0x7FFF0000, 0x00050000
LOAD_NUMBER, JUMP_EQUAL, RETURN = 0x20, 0x15, 0x06
# The numbers of the three calls are those of every architecture.
CREATE_RULESET, RESTRICT_SELF = 444, 446
MAKE_BLOCK = 1 << 11  # which nobody here does

LIBC = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return result


def without_landlock():
    instructions = [
        (LOAD_NUMBER, 0, 0, 0),
        (JUMP_EQUAL, 0, 1, CREATE_RULESET),
        (RETURN, 0, 0, SECCOMP_RET_ERRNO | errno.ENOSYS),
        (RETURN, 0, 0, SECCOMP_RET_ALLOW),
    ]
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *each) for each in instructions))
    program = struct.pack("@HP", len(instructions), ctypes.addressof(code))
    check(LIBC.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0))
    check(LIBC.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, program))


def add_layers(number):
    check(LIBC.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0))
    for _ in range(number):
        ruleset = check(LIBC.syscall(CREATE_RULESET, struct.pack("Q", MAKE_BLOCK), 8, 0))
        check(LIBC.syscall(RESTRICT_SELF, ruleset, 0))
        os.close(ruleset)


def main(how, *command):
    if how == "without-landlock":
        without_landlock()
    else:
        add_layers(int(command[0]))
        command = command[1:]
    os.execv(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
