"""The faults of tests/system/faults.py, a few of each kind; all of them, and other seeds, by hand. With a sanitizer those that it
bears."""

import faults
import pytest

CALLS = {faults.call_fails, faults.default_vrf_call_fails}
LONG = {faults.switch_stopped}


@pytest.mark.parametrize("kinds", [CALLS, set(faults.kinds()) - CALLS - LONG], ids=["calls", "others"])
def test_some_of_each_kind(kinds):
    assert faults.run(share=0.01, seed=5, only=None, say=print, kinds=kinds) == []
