#!/usr/bin/env python3
"""load.py LIBRARY COMPANION - libmqnode.so binds all names when it is loaded: without the companion the loader refuses
it and names what is missing, even when lazy binding is asked for; after the companion it loads and works."""
import ctypes
import os
import sys

library, companion = sys.argv[1:]
for mode in (os.RTLD_NOW, os.RTLD_LAZY):
    try:
        ctypes.CDLL(library, mode)
        sys.exit("load: loaded without a companion")
    except OSError as error:
        if "undefined symbol: " not in str(error):
            sys.exit(f"load: {error}")
ctypes.CDLL(companion, os.RTLD_NOW | os.RTLD_GLOBAL)
loaded = ctypes.CDLL(library, os.RTLD_NOW)
loaded.Qalloc.restype = ctypes.c_void_p
queue = ctypes.c_void_p(loaded.Qalloc())
loaded.Qfree(ctypes.byref(queue))
sys.exit(0 if queue.value is None else "load: Qfree left the pointer")
