"""Validates JSON against definitions of docs/koductl.schema.json.

    validateJson.py SCHEMA DEFINITION FILE [DEFINITION FILE]...

Prints each violation; exit status 1 when there is one.
"""

import json
import sys

import jsonschema

with open(sys.argv[1], encoding='utf-8') as file:
    definitions = json.load(file)['$defs']
jsonschema.Draft202012Validator.check_schema({'$defs': definitions})

isValid = True
for name, path in zip(sys.argv[2::2], sys.argv[3::2]):
    with open(path, encoding='utf-8') as file:
        value = json.load(file)
    validator = jsonschema.Draft202012Validator({'$ref': f'#/$defs/{name}', '$defs': definitions})
    if name not in definitions:
        print(f'{name}: no such definition')
        isValid = False
        continue
    for error in validator.iter_errors(value):
        place = '/'.join(str(step) for step in error.absolute_path)
        print(f'{name}: at /{place}: {error.message[:300]}')
        isValid = False
sys.exit(0 if isValid else 1)
