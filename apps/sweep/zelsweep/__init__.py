# SPDX-License-Identifier: Apache-2.0
"""zelsim-sweep: sweeps of zelsim runs, run on every core or as a Slurm job
array, merged into CSV files and drawn with matplotlib."""
