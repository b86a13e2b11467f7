"""Sees to it that a task ends, whatever happens to the process that does its work.

The process that was started becomes the guard and forks the worker. The two are joined by a pair of sockets, over which
each learns of the other's death. A guard whose worker ends without having recorded an outcome records the failure. A
worker whose guard is killed works on and takes itself a new guard, so that only the death of both at once leaves a task
without an end. Both hold the lock named after the task's helper: the daemon, which is told when the process that it
started ends, fails the task when that lock is free and the task has not ended.
"""

import contextlib
import fcntl
import os
import resource
import signal
import socket
import sys
import syslog
import time
import traceback

from tessel_lifecycle import paths
from tessel_lifecycle.banks import ACTIVATION
from tessel_lifecycle.errors import ImageError, Note, TaskError
from tessel_lifecycle.image import Image
from tessel_lifecycle.lock import LockTimeout, take
from tessel_lifecycle.task import ENDING, Terminated

_GRACE = 20      # seconds that a worker has to end after it was asked to
_PATIENCE = 1    # seconds for the lock that tells that the helper lives
_UNRECORDED = 2  # exit code of a worker that could not record its outcome


def run(task, work):
    """Carries out `work(task)`, which returns the task's result or raises, and ends the task. Returns the exit code."""
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    sign_of_life = _sign_of_life(task)
    mine, its = socket.socketpair()
    worker = os.fork()
    if worker:
        its.close()
        return _watch(task, worker, mine)
    mine.close()
    _leave(lambda: _work(task, work, its, sign_of_life))


def _sign_of_life(task):
    with contextlib.suppress(OSError, LockTimeout):  # somebody who looks whether it is held holds it for a moment
        return take(paths.TASK_HELPER + task.id, _PATIENCE)


def _leave(function):
    """Ends this process with what `function` returns, past all that belongs to the process it was forked from."""
    code = _UNRECORDED
    try:
        code = function()
    except BaseException:
        with contextlib.suppress(OSError):
            traceback.print_exc()
    finally:
        os._exit(code)


def _work(task, work, guard, sign_of_life):
    _keep_guarded(task, guard, sign_of_life)
    for number in ENDING:
        signal.signal(number, _terminated)
    try:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
        task.start()
        result = work(task)
    except BaseException as error:
        for number in ENDING:
            signal.signal(number, signal.SIG_IGN)
        _report(task, error)
        task.fail(_as_task_error(error))
        return 1
    task.succeed(result)
    return 0


def _as_task_error(error):
    if isinstance(error, TaskError):
        return error
    limit, _ = resource.getrlimit(resource.RLIMIT_DATA)
    if isinstance(error, MemoryError) and limit != resource.RLIM_INFINITY:
        return ImageError("MemoryReserveError", limit >> 20)
    return ImageError("UnknownError", detail=str(error)[:1000] or type(error).__name__)


def _terminated(number, _):
    for other in ENDING:
        signal.signal(other, signal.SIG_IGN)  # once is enough; a second would break into the cleaning up
    raise Terminated(f"ended by signal {number}")


def _report(task, error):
    text = f"task {task.id}, {task.operation}: {error or type(error).__name__}"
    syslog.syslog(syslog.LOG_ERR, text)
    with contextlib.suppress(OSError):  # who started the task need not listen any more
        print(text, file=sys.stderr)
        if not isinstance(error, (TaskError, Terminated)):
            traceback.print_exception(error)


def _keep_guarded(task, guard, sign_of_life):
    """Has the kernel send SIGIO when the guard's socket closes, and answers it with a new guard."""
    holder = [guard]

    def renew(*_):
        holder[0].close()
        mine, holder[0] = socket.socketpair()
        worker = os.getpid()
        if os.fork():
            mine.close()
            arm()
        else:
            os.setsid()
            signal.signal(signal.SIGIO, signal.SIG_DFL)
            _leave(lambda: _watch(task, worker, _only(mine, sign_of_life)))

    def arm():
        fcntl.fcntl(holder[0], fcntl.F_SETOWN, os.getpid())
        fcntl.fcntl(holder[0], fcntl.F_SETFL, os.O_ASYNC | os.O_NONBLOCK)
        try:
            if not holder[0].recv(1):
                renew()  # it died before the kernel was told to watch
        except BlockingIOError:
            pass

    signal.signal(signal.SIGIO, renew)
    arm()


def _only(kept, also_kept):
    """Closes all but a socket and a lock that was inherited: what else the worker locks must end with the worker."""
    start = 3
    for descriptor in sorted([kept.fileno(), *(also_kept.descriptors() if also_kept else [])]):
        os.closerange(start, descriptor)
        start = descriptor + 1
    os.closerange(start, os.sysconf("SC_OPEN_MAX"))
    return kept


def _watch(task, worker, its_end):
    """Waits for the worker's death and records the failure if it recorded nothing. Returns the exit code."""
    _rename_process(f"task-guard {task.id[:8]}")
    its_end.setblocking(True)

    def end_worker(number, _):
        with contextlib.suppress(ProcessLookupError):
            os.kill(worker, signal.SIGKILL if number == signal.SIGALRM else signal.SIGTERM)
        signal.alarm(_GRACE)

    for number in (*ENDING, signal.SIGALRM):
        signal.signal(number, end_worker)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
    its_end.recv(1)  # nothing is ever sent: this is the end
    for number in (*ENDING, signal.SIGALRM):
        signal.signal(number, signal.SIG_IGN)
    signal.alarm(0)
    try:
        _, status = os.waitpid(worker, 0)
        how = os.waitstatus_to_exitcode(status)
    except ChildProcessError:
        how = _UNRECORDED
    if how in (0, 1):
        return how
    notes = _put_right(Image(paths.IMAGE))
    if not task.fail(ImageError("UnknownError", notes=notes)):
        syslog.syslog(syslog.LOG_ERR, f"task {task.id}, {task.operation}: its worker ended with {how}")
    return 1


def _put_right(image):
    """Ends what a dead worker left of a change of the image. Returns what is to be told of it."""
    notes = []
    if os.path.exists(image.path(ACTIVATION)):
        from tessel_lifecycle import activation  # much to load, and seldom needed
        end = time.monotonic() + _PATIENCE
        while time.monotonic() < end:  # what the worker had just started may hold the lock for a moment
            with contextlib.suppress(ImageError, OSError), image.locked():
                if activation.recover(image):
                    notes.append(Note("PutBack"))
                break
            time.sleep(0.05)
    image.discard_unfinished()
    return notes


def _rename_process(name):
    """Shows the guard under a name of its own, so that who ends a process by the task's line hits the worker."""
    try:
        with open("/proc/self/stat") as file:
            start, end = map(int, file.read().rpartition(")")[2].split()[45:47])
        memory = os.open("/proc/self/mem", os.O_RDWR | os.O_CLOEXEC)
        try:
            os.pwrite(memory, name.encode()[:end - start - 1].ljust(end - start, b"\0"), start)
        finally:
            os.close(memory)
    except (OSError, ValueError):
        pass
