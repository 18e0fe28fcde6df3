#!/usr/bin/env python3
"""Makes a photo library package that holds one picture.

    photo_library.py PACKAGE PICTURE.jpg IDENTIFIER
"""

import pathlib
import shutil
import sqlite3
import sys

package, picture, identifier = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
folder = package / "originals" / identifier[0]
folder.mkdir(parents=True)
(package / "database").mkdir()
shutil.copyfile(picture, folder / f"{identifier}.jpeg")
with sqlite3.connect(package / "database/Photos.sqlite") as catalogue:
    catalogue.execute(
        "CREATE TABLE ZASSET(Z_PK INTEGER PRIMARY KEY, ZUUID TEXT, ZDIRECTORY TEXT, ZFILENAME TEXT,"
        " ZKIND INTEGER, ZUNIFORMTYPEIDENTIFIER TEXT, ZTRASHEDSTATE INTEGER, ZHIDDEN INTEGER)")
    catalogue.execute(
        "CREATE TABLE ZADDITIONALASSETATTRIBUTES(Z_PK INTEGER PRIMARY KEY, ZASSET INTEGER,"
        " ZORIGINALFILENAME TEXT)")
    catalogue.execute("INSERT INTO ZASSET VALUES(1, ?, ?, ?, 0, 'public.jpeg', 0, 0)",
                      (identifier, identifier[0], f"{identifier}.jpeg"))
    catalogue.execute("INSERT INTO ZADDITIONALASSETATTRIBUTES VALUES(1, 1, ?)", (picture.name,))
catalogue.close()
