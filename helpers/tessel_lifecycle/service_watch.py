"""Watching services come up, and stay."""

import time

from tessel_lifecycle import service_manager

LONGEST = 90        # seconds for services to come up, if their own time is not shorter
STOPPING = 100      # as many more, at most, for what ran before under their names to stop
STAY = 5            # seconds that they have to stay
STAY_PROVED = 0.5   # as long, of an image that has been up well before


class ServiceFailed(Exception):
    """A service did not come up, or did not stay; `why` is its state."""

    def __init__(self, unit, why):
        super().__init__(f"{unit}: {why}")
        self.unit, self.why = unit, why


def watch(units, stay):
    """Waits until all these services are up and have stayed so.

    A oneshot that ended well counts as up; so does one whose conditions do not hold here, and a masked one.
    @param units  name -> State before it was started, or None
    @param stay  seconds
    @throws ServiceFailed, ManagerError
    """
    begun, last_rise, up, done = time.monotonic(), time.monotonic(), {}, set()
    stopped = begun + STOPPING
    while len(done) < len(units):
        for unit, state in service_manager.states(unit for unit in units if unit not in done).items():
            if state.is_stopping and unit not in up and time.monotonic() < stopped:
                begun = time.monotonic()
            if unit in up:
                if not state.is_up or (state.invocation, state.restarts) != up[unit]:
                    raise ServiceFailed(unit, "ended after it had come up: " + state.text)
            elif state.is_up and not state.has_job:
                up[unit], last_rise = (state.invocation, state.restarts), time.monotonic()
            elif _has_ended_well(state, units[unit]):
                done.add(unit)
            elif why := _failure(state, units[unit]):
                raise ServiceFailed(unit, why)
        missing = units.keys() - up.keys() - done
        if not missing and time.monotonic() >= last_rise + stay:
            return
        if missing and time.monotonic() >= begun + LONGEST:
            unit = min(missing)
            raise ServiceFailed(unit, f"not up within {LONGEST} seconds: {service_manager.states([unit])[unit].text}")
        service_manager.pause()


def _has_ended_well(state, before):
    if state.is_masked:
        return True
    if state.has_job or state.active != "inactive":
        return False
    ran = state.invocation and (before is None or state.invocation != before.invocation)
    return not state.conditions_hold or bool(state.is_oneshot and state.result == "success" and ran)


def _failure(state, before):
    if state.has_job:
        return None
    if state.active in ("failed", "inactive"):
        return state.text
    if state.entered > (before.entered if before else 0):
        return "ended after it had come up: " + state.text
    return None
