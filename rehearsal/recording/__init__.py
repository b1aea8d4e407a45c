"""Makes a page of a recording of the serial line.

The recording is decoded by `boardtap --read FILE --events -`; the page is made by the templates of the rehearsal's
report. What the recording says may be hostile.
"""
