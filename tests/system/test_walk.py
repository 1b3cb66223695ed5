"""The random walk of tests/system/walk.py, a short one; longer ones and other seeds by hand."""

import walk


def test_short_random_walk():
    walk.walk(changes=400, seed=4, say=print)
