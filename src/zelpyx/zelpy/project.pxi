# Filled in by its own change; included by zelpy.pyx.
