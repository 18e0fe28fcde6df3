# (none yet)
