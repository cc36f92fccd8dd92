# The Python client: where it is installed, and which interpreter runs its tests.
#
# VORN_PYTHON_DIR (relative to the install prefix): the folder the system's python3 searches
# under CMAKE_INSTALL_PREFIX (lib/python3/dist-packages for /usr on Debian,
# lib/python3.X/dist-packages for /usr/local), else the standard lib/python3.X/site-packages.
# An install under /usr (a Debian package) always uses lib/python3/dist-packages
# (clients/python/CMakeLists.txt).
# VORN_PYTEST_PYTHON: the first of /usr/bin/python3 and the python3 on PATH that can import
# pytest; empty when none can, and the Python tests are then reported as skipped.

set(_vorn_pythons)
foreach(_candidate /usr/bin/python3)
    if(EXISTS ${_candidate})
        list(APPEND _vorn_pythons ${_candidate})
    endif()
endforeach()
find_program(VORN_PATH_PYTHON3 python3)
if(VORN_PATH_PYTHON3)
    list(APPEND _vorn_pythons ${VORN_PATH_PYTHON3})
endif()

if(NOT DEFINED VORN_PYTHON_DIR)
    set(_dir lib/python3/dist-packages)
    if(_vorn_pythons)
        list(GET _vorn_pythons 0 _python)
        execute_process(
            COMMAND ${_python} -c [=[
import sys, sysconfig
prefix = sys.argv[1].rstrip("/") or "/"
v = "%d.%d" % sys.version_info[:2]
for rel in ("lib/python3/dist-packages", "lib/python%s/dist-packages" % v,
            "lib/python%s/site-packages" % v):
    if prefix.rstrip("/") + "/" + rel in sys.path:
        print(rel)
        break
else:
    print("lib/python%s/site-packages" % v)
]=] ${CMAKE_INSTALL_PREFIX}
            OUTPUT_VARIABLE _out OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE _rc)
        if(_rc EQUAL 0 AND _out)
            set(_dir ${_out})
        endif()
    endif()
    set(VORN_PYTHON_DIR ${_dir} CACHE STRING
        "Where cmake --install puts the Python client, relative to the prefix")
endif()

# Probed again while empty, so that installing pytest later needs no fresh build folder.
if(NOT VORN_PYTEST_PYTHON)
    set(_with_pytest "")
    foreach(_python IN LISTS _vorn_pythons)
        execute_process(COMMAND ${_python} -c "import pytest"
            RESULT_VARIABLE _rc OUTPUT_QUIET ERROR_QUIET)
        if(_rc EQUAL 0)
            set(_with_pytest ${_python})
            break()
        endif()
    endforeach()
    set(VORN_PYTEST_PYTHON "${_with_pytest}" CACHE FILEPATH
        "Python interpreter with pytest for the Python client's tests (empty: skip them)" FORCE)
endif()
