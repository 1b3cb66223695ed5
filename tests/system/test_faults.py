"""The faults of tests/system/faults.py, a few of each kind; all of them, and other seeds, by hand."""

import faults


def test_some_of_each_kind():
    faults.run(share=0.01, seed=5, only=None, say=print, without=(faults.switch_stopped,))
