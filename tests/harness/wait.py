'''Waiting for something the tests cannot be told about: a condition polled until it holds.'''
import time


def wait_until(condition, timeout, step=0.05):
    '''Polls condition() every `step` seconds for up to `timeout` seconds, and once more at the end.
    Returns the first true value it gave, or the last false one.'''
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(step)
    return condition()
