"""Puts the host's classes in the place of the standard library's."""

import bdb
import pdb


def replace():
    from brixdebug import debugger, engine
    bdb.Bdb = engine.Bdb
    pdb.Pdb = debugger.Debugger
