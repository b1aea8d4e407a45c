"""Package files (.ipk) and what a package manager makes of them.

    packagefile   reads a package: its control file, the names of its files; extracts it
    walk          reads a package once, and tells where it is damaged
    control       the fields of control files and of the package database; versions; dependencies
    installer     installs packages as the machine's package manager does; sandbox/bin/opkg is its command line
"""
