# AOIPolygon: the outline, holes and correlation settings of one area of
# interest, in the form projects exchange them.

import operator as _operator


def _int_argument(value, str name):
    # A C int argument would silently truncate floats (7.5 -> 7); settings are
    # whole numbers, so anything that is not an integer type is refused.
    try:
        return _operator.index(value)
    except TypeError:
        raise TypeError("Argument '" + name + "' has incorrect type (expected int, got "
                        + type(value).__name__ + ")") from None


class AOIPolygon:
    """One area of interest: an outline polygon with cutouts (holes), plus the
    correlation subset size and step size in pixels.

    Point lists are flat: ``[x0, y0, x1, y1, ...]`` in image coordinates.

    ``cutouts`` starts out as one list owned by the class, and
    :meth:`set_cutouts` / :meth:`add_cutout` change it in place; an instance
    that never assigned its own ``cutouts`` therefore shares its holes with
    every other such instance. Scripts written against earlier releases rely
    on this, so it stays; assign ``polygon.cutouts = []`` to give a polygon
    holes of its own.
    """

    outline = None
    cutouts = []
    subset_size = 29
    step_size = 7

    def __init__(self, list outline=None):
        """Create a polygon, optionally with its outline (a flat list)."""
        if outline is not None:
            self.set_outline(outline)

    def set_outline(self, list outline not None):
        """Set the outline; its length must be even (x before y)."""
        if len(outline) % 2 != 0:
            raise ValueError("The size of the list is not even")
        self.outline = outline

    def add_cutout(self, list cutout not None):
        """Append one hole (a flat point list of even length) to ``cutouts``."""
        if len(cutout) % 2 != 0:
            raise ValueError("The size of the list is not even")
        self.cutouts.append(cutout)

    def set_cutouts(self, list cutouts not None):
        """Replace the holes: ``cutouts`` is emptied in place, then each
        element is added in order. A bad element raises after the ones before
        it were added."""
        self.cutouts.clear()
        for cutout in cutouts:
            self.add_cutout(cutout)

    def set_subset_size(self, subset_size):
        """Set the correlation subset size: odd, 9 to 151 pixels."""
        subset_size = _int_argument(subset_size, "subset_size")
        # The parity check comes first so that an even size is reported as
        # such even when it is also out of range.
        if subset_size % 2 == 0:
            raise ValueError("The subset size should be an odd number")
        if subset_size > 151 or subset_size < 9:
            raise ValueError("The subset size should be between 9 and 151")
        self.subset_size = subset_size

    def set_step_size(self, step_size):
        """Set the correlation step size: 1 to 30 pixels."""
        step_size = _int_argument(step_size, "step_size")
        if step_size > 30 or step_size < 1:
            raise ValueError("The step size should be between 1 and 30")
        self.step_size = step_size
