"""Runs a command on its own terminal: terminal.py COLUMNS [COLUMNS] COMMAND...

Copies what the command writes there to standard output. With a second number the terminal
changes to that width after the first output. SIGTERM is passed on to the command.
"""
import fcntl
import os
import pty
import signal
import struct
import sys
import termios


def resize(terminal, columns):
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 1000, int(columns), 0, 0))


widths = [word for word in sys.argv[1:3] if word.isdigit()]
command = sys.argv[1 + len(widths):]
near, far = pty.openpty()
resize(near, widths[0])
child = os.fork()
if child == 0:
    os.setsid()
    fcntl.ioctl(far, termios.TIOCSCTTY, 0)
    os.dup2(far, 1)
    os.dup2(far, 2)
    os.execvp(command[0], command)
os.close(far)
signal.signal(signal.SIGTERM, lambda *_: os.kill(child, signal.SIGTERM))
while True:
    try:
        piece = os.read(near, 65536)
    except OSError:  # the last process has closed the terminal
        break
    os.write(1, piece)
    resize(near, widths[-1])
sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
