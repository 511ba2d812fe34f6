"""The analysis of oltb analyze over an event array."""


def analyze(events, head=0, settle_band=100.0, units_per_mm=None):
    raise NotImplementedError("the analysis comes with the analysis library")
