# -*- coding: utf-8 -*-
'''Typed properties for the simulated sibling daemons.

Every property is created with its declared D-Bus type, and Mock.SetProp(name, value) coerces a value
to that type before it stores it and emits org.freedesktop.DBus.Properties.PropertiesChanged, so a test
or a person can write `SetProp autoScanRateSecs 60` without spelling out uint32.
'''
import dbus

_SCALARS = {'b': dbus.Boolean, 'u': dbus.UInt32, 'i': dbus.Int32, 'n': dbus.Int16, 'q': dbus.UInt16,
            's': dbus.String, 'y': dbus.Byte, 'x': dbus.Int64, 't': dbus.UInt64, 'd': dbus.Double,
            'o': dbus.ObjectPath}


def _split(signature):
    '''The complete types of `signature`, e.g. "sasi" -> ["s", "as", "i"].'''
    types, i = [], 0
    while i < len(signature):
        j = i
        while signature[j] == 'a':
            j += 1
        if signature[j] in '({':
            depth, k = 0, j
            while True:
                depth += signature[k] in '({'
                depth -= signature[k] in ')}'
                k += 1
                if depth == 0:
                    break
            j = k
        else:
            j += 1
        types.append(signature[i:j])
        i = j
    return types


def typed(signature, value, variant_level=1):
    '''value converted to the D-Bus type `signature`: scalars, arrays and structs of them, nested.'''
    if signature.startswith('a'):
        inner = signature[1:]
        return dbus.Array([typed(inner, x, 0) for x in value], signature=inner, variant_level=variant_level)
    if signature.startswith('('):
        fields = _split(signature[1:-1])
        return dbus.Struct([typed(t, v, 0) for t, v in zip(fields, value)], signature=signature[1:-1],
                           variant_level=variant_level)
    if signature == 'b' and isinstance(value, str):
        value = value.lower() in ('1', 'true', 'yes', 'on')
    if isinstance(value, (list, tuple, dict)):
        raise TypeError(f'a list is no {signature}')
    if signature == 'b' and not isinstance(value, bool) and value not in (0, 1):
        raise ValueError(f'{value!r} is no boolean')
    return _SCALARS[signature](value, variant_level=variant_level)


def emit_changed(obj, interface, changed):
    obj.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                   [interface, dbus.Dictionary(changed, signature='sv'), dbus.Array([], signature='s')])


def add_typed_object(mock, path, interface, declared, overrides):
    '''Adds (or fills) the object at `path` with `declared` = {name: (signature, default)}.'''
    props = dbus.Dictionary({name: typed(sig, overrides.get(name, default))
                             for name, (sig, default) in declared.items()}, signature='sv')
    if path == mock.path:
        mock.AddProperties(interface, props)
        obj = mock
    else:
        mock.AddObject(path, interface, props, [])
        from dbusmock import mockobject
        obj = mockobject.objects[path]
    obj.declared = dict(getattr(obj, 'declared', {}), **{n: (interface, s) for n, (s, _) in declared.items()})
    return obj


def _plain(value):
    if isinstance(value, (list, tuple, dbus.Array, dbus.Struct)):
        return [_plain(v) for v in value]
    if isinstance(value, bool):
        return bool(value)
    if isinstance(value, (int, float)):
        return value.real
    return str(value)


def set_prop(obj, name, value):
    '''Stores `value` coerced to the declared type of `name` and announces the change.'''
    if str(name) not in getattr(obj, 'declared', {}):
        raise dbus.exceptions.DBusException(f'no property {name} on {obj.path}',
                                            name='org.freedesktop.DBus.Error.UnknownProperty')
    interface, signature = obj.declared[str(name)]
    try:
        v = typed(signature, value)
    except (TypeError, ValueError, OverflowError):
        # one line for the person at the terminal, not the simulation's traceback
        raise dbus.exceptions.DBusException(f'{name} takes D-Bus type "{signature}", not {_plain(value)!r}',
                                            name='org.freedesktop.DBus.Error.InvalidArgs') from None
    obj.props[interface][str(name)] = v
    emit_changed(obj, interface, {str(name): v})
