// placeholder while the subsystem is written
