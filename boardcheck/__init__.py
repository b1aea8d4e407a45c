"""Asks a real control board what the program will ask, and compares its replies with what the program requires.

requirements.toml states what a board must do; docs/board.md is made from it. The requests are those of the unchanged
program: its library sends them on the simulated machine, and boardtap carries them to the board and decodes both
directions.
"""
