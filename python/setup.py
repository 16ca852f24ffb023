import runpy

from setuptools import setup

BUILD = runpy.run_path("build_kspool.py")
setup(version=BUILD["pkg_config"]("--modversion")[0], cffi_modules=["build_kspool.py:builder"])
