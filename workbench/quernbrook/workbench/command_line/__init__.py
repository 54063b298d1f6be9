"""The command `quernbrook`. NumPy, pandas and the evaluator are imported inside functions here, so
that its help comes at once."""
