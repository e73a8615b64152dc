# -*- coding: utf-8 -*-
'''Timed behaviour of a simulated remote camera ("KelpCam") for the simulated BlueZ (bluez_sim.py).

bluez_sim's RemoteCamera answers every command at once from a fixed state. A real camera takes time:
it powers up, boots its Wi-Fi access point, changes band, and tells the unit about each change by
itself, unasked. KelpBehaviour adds that on top of RemoteCamera (bluez_sim mixes it in:
`class KelpCamera(KelpBehaviour, RemoteCamera)`), using only the camera's hooks: the state attributes
`power`, `wifi` and `band`, `schedule(delay_ms, fn, *args)`, `notify(text)`, `power_answer()`,
`wifi_answer()`, `answer(command)`, `change_power(letter)`, `change_band(band)`, and `drop_link()`,
which the host class provides.

The profile (all keys optional) comes from the device's 'X-Camera-Profile' (a{sv}) pseudo-property at
org.bluez.Mock.AddLEDevice, from the template's camera_<key> parameters, or later from
org.bluez.Mock.SetCameraState, which accepts the same keys beside the state ones:

  power_on_ms (u, 0)          time from a power command's answer to the new power state; when not 0 the
                              command is answered with the current letter and the new one is notified
                              by itself once it applies
  wifi_settle (s, "")         the state the access point settles in after booting: "R" ready, "C"
                              connected, or "B"/"G" for a camera whose access point never comes up.
                              Empty: no access-point timeline at all, power changes leave the Wi-Fi
                              state alone (the plain camera of bluez_sim)
  wifi_unavailable_ms (u, 0)  with wifi_settle: after switching on from 'U', time in 'G' before the
                              access point boots
  wifi_boot_ms (u, 0)         then time in 'B' (booting) before it settles
  band_change_ms (u, 0)       time from a frequency command's answer to the new band
  band_boot_ms (u, 0)         when not 0, the Wi-Fi passes through 'B' for that long with the new band,
                              then settles in wifi_settle (or returns to its former state)
  band_applied (s, "")        the band the camera really takes on a frequency command ("" = the one
                              asked for); another value makes it answer with the wrong band
  drop_link_on (s, "")        a command text, or its start (e.g. "WP", "WF5.0G\\r"), on which the camera
                              drops the link instead of answering
  drop_link_after_ms (u, 0)   delay of that drop after the command was written

With wifi_settle, switching the power to 'U' turns the Wi-Fi off ('G'). Every change of power, Wi-Fi
state or band that happens after the command's own answer is notified unsolicited ("P<power>\\r" or
"F<band><wifi>\\r"), as the real camera does, and never before that answer; notifications go out only
while the unit listens (StartNotify). A newer change cancels the timers of an older one.
'''

PROFILE_KEYS = {
    'power_on_ms': int,
    'wifi_unavailable_ms': int,
    'wifi_boot_ms': int,
    'wifi_settle': str,
    'band_change_ms': int,
    'band_boot_ms': int,
    'band_applied': str,
    'drop_link_on': str,
    'drop_link_after_ms': int,
}

DEFAULT_PROFILE = {
    'power_on_ms': 0,
    'wifi_unavailable_ms': 0,
    'wifi_boot_ms': 0,
    'wifi_settle': '',
    'band_change_ms': 0,
    'band_boot_ms': 0,
    'band_applied': '',
    'drop_link_on': '',
    'drop_link_after_ms': 0,
}

POWER_OFF = 'U'
WIFI_OFF = 'G'
WIFI_BOOTING = 'B'


def split_profile(values):
    '''(profile keys converted to their types, the other keys) of a dictionary.'''
    profile, rest = {}, {}
    for key, value in dict(values or {}).items():
        key = str(key)
        if key in PROFILE_KEYS:
            profile[key] = PROFILE_KEYS[key](value)
        else:
            rest[key] = value
    return profile, rest


class KelpBehaviour:
    '''Mixin for bluez_sim.RemoteCamera: timed power, Wi-Fi and band changes, notified by themselves.'''

    def __init__(self, device, defaults=None):
        profile, rest = split_profile(defaults)
        super().__init__(device, rest)
        self.profile = dict(DEFAULT_PROFILE)
        self.profile.update(profile)
        # bumped by every change of power or band: older timers see it and stand down
        self._power_epoch = 0
        self._band_epoch = 0
        # while a command is being answered: timers that must start only once its answer is out
        self._follow_ups = None

    # -- configuration
    def set_profile(self, values):
        profile, _ = split_profile(values)
        self.profile.update(profile)

    def set_state(self, state):
        profile, rest = split_profile(state)
        self.profile.update(profile)
        super().set_state(rest)

    # -- commands
    def answer(self, command):
        trigger = self.profile['drop_link_on']
        if trigger and command.startswith(trigger):
            self.schedule(self.profile['drop_link_after_ms'], self.drop_link)
            return None
        self._follow_ups = []
        try:
            text = super().answer(command)
        finally:
            follow_ups, self._follow_ups = self._follow_ups, None
        if not follow_ups:
            return text
        # answer first, then start what the command set going, so that nothing overtakes the answer
        self.schedule(self.answer_delay_ms, self._answer_then, text, follow_ups)
        return None

    def _answer_then(self, text, follow_ups):
        if text is not None:
            self.notify(text)
        for delay_ms, fn, args in follow_ups:
            self.schedule(delay_ms, fn, *args)

    def _follow(self, delay_ms, fn, *args):
        '''schedule(), deferred until the answer is out when a command is being answered.'''
        if self._follow_ups is not None:
            self._follow_ups.append((delay_ms, fn, args))
        else:
            self.schedule(delay_ms, fn, *args)

    def change_power(self, letter):
        self._power_epoch += 1
        epoch = self._power_epoch
        delay = self.profile['power_on_ms']
        if delay > 0:
            # from the answer on: a stalled main loop must not let the change overtake the answer
            self._follow(delay, self._apply_power, epoch, letter, True)
        else:
            self._apply_power(epoch, letter, False)

    def change_band(self, band):
        self._band_epoch += 1
        epoch = self._band_epoch
        applied = self.profile['band_applied'] or band
        delay = self.profile['band_change_ms']
        if delay > 0:
            self._follow(delay, self._apply_band, epoch, applied, True)
        else:
            self._apply_band(epoch, applied, False)

    # -- timelines
    def _apply_power(self, epoch, letter, unsolicited):
        if epoch != self._power_epoch:
            return
        was = self.power
        self.power = letter
        if unsolicited and letter != was:
            self.notify(self.power_answer())
        if not self.profile['wifi_settle']:
            return
        if letter == POWER_OFF:
            self._set_wifi(WIFI_OFF, unsolicited)
        elif was == POWER_OFF:
            self._boot_wifi(self.profile['wifi_unavailable_ms'], unsolicited)

    def _apply_band(self, epoch, band, unsolicited):
        if epoch != self._band_epoch:
            return
        changed = band != self.band
        self.band = band
        boot_ms = self.profile['band_boot_ms']
        if boot_ms > 0:
            was = self.wifi
            self.wifi = WIFI_BOOTING
            # a command answered at once carries this state itself
            if unsolicited and (changed or was != WIFI_BOOTING):
                self.notify(self.wifi_answer())
            settle = self.profile['wifi_settle'] or was
            self._follow(boot_ms, self._settle_after_band, self._power_epoch, epoch, settle)
        elif unsolicited and changed:
            self.notify(self.wifi_answer())

    def _settle_after_band(self, power_epoch, band_epoch, settle):
        if band_epoch != self._band_epoch or power_epoch != self._power_epoch:
            return
        self._set_wifi(settle, True)

    def _boot_wifi(self, unavailable_ms, unsolicited):
        '''G for unavailable_ms, B for wifi_boot_ms, then the settled state.'''
        self._set_wifi(WIFI_OFF, unsolicited)
        self._follow(unavailable_ms, self._start_booting, self._power_epoch)

    def _start_booting(self, epoch):
        if epoch != self._power_epoch:
            return
        self._set_wifi(WIFI_BOOTING, True)
        self.schedule(self.profile['wifi_boot_ms'], self._settle_wifi, epoch)

    def _settle_wifi(self, epoch):
        if epoch != self._power_epoch or self.power == POWER_OFF:
            return
        self._set_wifi(self.profile['wifi_settle'], True)

    def _set_wifi(self, letter, notify):
        if letter == self.wifi:
            return
        self.wifi = letter
        if notify:
            self.notify(self.wifi_answer())
