'''The Python side of the test tiers: the hermetic unit (testenv), the daemon binary run in it
(daemon_process, unit), the one way of waiting (wait), the one D-Bus client (bus) and the controls of the
simulated peers (peers). Put on the path by the test registration: PYTHONPATH names tests/ (and sim/, for
the table of devices near the unit).'''
