"""Package of the compiled module ``zelpyx.zelpy.zelpy``."""
