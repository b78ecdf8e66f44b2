"""Reads metrics as strictly as a monitoring system may.

    validateMetrics.py classic|openmetrics FILE

Prints the number of samples; exit status 1, with the reason, when the text is not valid.
"""

import sys

from prometheus_client import parser
from prometheus_client.openmetrics import parser as openmetrics

parse = openmetrics if sys.argv[1] == 'openmetrics' else parser
with open(sys.argv[2], encoding='utf-8') as file:
    families = list(parse.text_string_to_metric_families(file.read()))
print(sum(len(family.samples) for family in families))
