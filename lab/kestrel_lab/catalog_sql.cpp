#include "lab/kestrel_lab/catalog_sql.h"

namespace oscar_lab
{

const char* const catalog_sql = R"sql(
create schema oscar_sys;

-- OSCAR shows unquoted names in upper case, PostgreSQL keeps them in lower case; mixed case is kept by both.
-- Applied twice it gives the name back.
create function oscar_sys.fold(n text) returns text language sql immutable strict as
$$select case when n = pg_catalog.lower(n) then pg_catalog.upper(n)
              when n = pg_catalog.upper(n) then pg_catalog.lower(n) else n end$$;

create function oscar_sys.version() returns text language sql immutable as
$$select 'OSCAR Database Server 2.5.6 (build 2.5.6x20230817132129) for Linux x86_64'::text$$;

create view oscar_sys.v_sys_database_info as
  select case when setting = 'off' then 'NOARCHIVELOG' else 'ARCHIVELOG' end as archivemode
  from pg_catalog.pg_settings where name = 'archive_mode';

create view oscar_sys.v_sys_schemas as
  select case nspname when 'information_schema' then 'INFO_SCHEM' when 'oscar_sys' then 'SYSDBA'
                      else oscar_sys.fold(nspname::text) end as table_schem
  from pg_catalog.pg_namespace where nspname !~ '^pg_' order by 1;

create view oscar_sys.v_sys_tables as
  select oscar_sys.fold(n.nspname::text) as table_schem, oscar_sys.fold(c.relname::text) as table_name,
         case c.relkind when 'v' then 'VIEW' when 'm' then 'MATERIALIZED VIEW' else 'TABLE' end as table_type
  from pg_catalog.pg_class c join pg_catalog.pg_namespace n on n.oid = c.relnamespace
  where c.relkind in ('r', 'p', 'v', 'm') and n.nspname !~ '^pg_' order by 1, 2;

create view oscar_sys.sys_tablespace as
  select case spcname when 'pg_global' then 'SYSTEM' when 'pg_default' then 'USERS'
                      else oscar_sys.fold(spcname::text) end as tsname, 'p'::text as tskind
  from pg_catalog.pg_tablespace
  where spcname <> 'pg_default' or pg_catalog.current_setting('oscar.users_tablespace', true) is distinct from 'none'
  union all values ('AUDIT', 'p'), ('CDC', 'p'), ('UNDO', 'u'), ('TEMP', 't');

create table oscar_sys.ha_node (node_id integer primary key, address text not null, status text not null);
create view oscar_sys.v_sys_ha_slave_info as select node_id, address, status from oscar_sys.ha_node order by 1;

grant usage on schema oscar_sys to public;
grant select on all tables in schema oscar_sys to public;
)sql";

} // namespace oscar_lab
