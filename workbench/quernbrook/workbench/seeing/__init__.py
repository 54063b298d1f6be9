"""Seeing results: measures of weights, causes of NaN, and pictures for files and for notebooks.

The modules: `measures`, `series`, `causes`, `nodes`, `pictures` (matplotlib) and `interactive`
(Bokeh). None is imported here, so that measures alone bring no library of pictures.
"""
